/// @file
#pragma once

#include "facezoo/layer.h"
#include "layers/handles.h"

/// Local response normalization across channels (Krizhevsky et al., "ImageNet classification with
/// deep convolutional neural networks", 2012), as cuDNN defines it:
/// y[c] = x[c] / (k + alpha / n · sum of x[j]² over the n channels around c)^beta, where the window
/// reaches (n - 1) / 2 channels back and channels outside the tensor count as zero.
///
/// (N, C, H, W) -> (N, C, H, W).
class LocalResponseNormalization : public LayerBase {
 public:
  using LayerBase::operator();

  /// @throws cudnnStatus_t, also for parameters that cuDNN refuses; TensorError 0
  virtual Tensor operator()(const Tensor& in, unsigned int n, float alpha, float beta, float k) {
    struct Shared {
      facezoo::TensorDescriptor tensor;
      facezoo::LRNDescriptor lrn;
    };
    auto& shared = facezoo::classWide<Shared>();
    shared.tensor.create();
    shared.lrn.create();
    Tensor out(in.base->shape);
    CheckCudnn(cudnnSetLRNDescriptor(shared.lrn, n, alpha, beta, k));
    facezoo::describe(shared.tensor, in.base->shape);
    CheckCudnn(cudnnLRNCrossChannelForward(handle_, shared.lrn, CUDNN_LRN_CROSS_CHANNEL_DIM1,
                                           &facezoo::kOne, shared.tensor, in.base->data,
                                           &facezoo::kZero, shared.tensor, out.base->data));
    return out;
  }
};
