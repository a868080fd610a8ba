/// @file
#pragma once

#include "facezoo/network.h"

/// Describes a colour 224 × 224 face image by 1024 values, which are a projection of 2048 features:
/// 1024 of a branch inside the trunk and 1024 of its end. `getOutputDim` is 2048, the number of
/// features.
class FACEZOO_EXPORT GoogLeNetBN : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  GoogLeNetBN(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNetBN(GoogLeNetBN& other);
  ~GoogLeNetBN() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 224 × 224 × 3 interleaved bytes
  /// @param out1 device memory, batch × 1024 floats
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 2048
  ///        features
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  // Each pair is a layer and its batch normalization. Destroyed in the reverse of this order.
  Layer inMean_;
  Layer conv1_[2], conv2Reduce_[2], conv2_[2];
  Layer inceptions_[10];
  Layer loss1Conv_[2], loss2Conv_[2];
  Layer loss1Fc_[2], loss2Fc_[2];
  Layer pca_;
};
