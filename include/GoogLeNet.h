/// @file
#pragma once

#include "facezoo/network.h"

/// Describes a grey 256 × 256 face image by 512 values, which are a projection of 2048 features:
/// 1024 of a branch inside the trunk and 1024 of its end. `getOutputDim` is 2048, the number of
/// features.
class FACEZOO_EXPORT GoogLeNet : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  GoogLeNet(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNet(GoogLeNet& other);
  ~GoogLeNet() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 256 × 256 bytes
  /// @param out1 device memory, batch × 512 floats
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 2048
  ///        features
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer trunk_[13];
  Layer loss2Conv_, loss2Fc_;
  Layer pca_;
};
