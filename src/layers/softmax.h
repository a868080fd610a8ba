/// @file
#pragma once

#include "facezoo/layer.h"
#include "layers/handles.h"

/// Softmax (Bridle, 1990) over the channels of every image and position:
/// y[c] = exp(x[c]) / sum of exp(x[j]). The exponentials are of the raw values, without subtracting
/// the maximum. The shape stays.
class Softmax : public LayerBase {
 public:
  /// @throws cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    struct Shared {
      facezoo::TensorDescriptor tensor;
    };
    auto& shared = facezoo::classWide<Shared>();
    shared.tensor.create();
    Tensor out(in.base->shape);
    facezoo::describe(shared.tensor, in.base->shape);
    CheckCudnn(cudnnSoftmaxForward(handle_, CUDNN_SOFTMAX_FAST, CUDNN_SOFTMAX_MODE_CHANNEL,
                                   &facezoo::kOne, shared.tensor, in.base->data, &facezoo::kZero,
                                   shared.tensor, out.base->data));
    return out;
  }
};
