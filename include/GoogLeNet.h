/// @file
#pragma once

#include "facezoo/network.h"

/// Describes a grey 256 × 256 face image by 512 values: two vectors of 1024 features, one of a
/// branch inside the trunk and one of its end, projected. `getOutputDim` is 2048, the length
/// before.
class FACEZOO_EXPORT GoogLeNet : public Network {
 public:
  /// @{
  /// Constructed, taken over by a copy and destroyed as every `Network`.
  GoogLeNet(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNet(GoogLeNet& other);
  ~GoogLeNet() override;
  /// @}

  /// @param images device memory, batch × 256 × 256 bytes
  /// @param out1 device memory, batch × 512 floats
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 2048 values,
  ///        before they are projected
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer trunk_[13];
  Layer loss2Conv_, loss2Fc_;
  Layer pca_;
};
