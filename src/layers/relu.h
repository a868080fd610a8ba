/// @file
#pragma once

#include "facezoo/layer.h"
#include "layers/handles.h"

/// Rectified linear unit (Nair and Hinton, 2010): y = max(0, x); NaN stays NaN. The shape stays.
class Relu : public LayerBase {
 public:
  /// @throws cudnnStatus_t, TensorError 0
  Tensor operator()(const Tensor& in) override {
    struct Shared {
      facezoo::TensorDescriptor tensor;
      facezoo::ActivationDescriptor relu;
      bool set = false;
    };
    auto& shared = facezoo::classWide<Shared>();
    shared.tensor.create();
    shared.relu.create();
    if (!shared.set) {
      CheckCudnn(cudnnSetActivationDescriptor(shared.relu, CUDNN_ACTIVATION_RELU,
                                              CUDNN_PROPAGATE_NAN, 0.0));
      shared.set = true;
    }
    Tensor out(in.base->shape);
    facezoo::describe(shared.tensor, in.base->shape);
    CheckCudnn(cudnnActivationForward(handle_, shared.relu, &facezoo::kOne, shared.tensor,
                                      in.base->data, &facezoo::kZero, shared.tensor,
                                      out.base->data));
    return out;
  }
};
