/// @file
#pragma once

#include "facezoo/network.h"

/// Regresses the 136 values of 68 landmarks from a colour 224 × 224 face image.
class FACEZOO_EXPORT FANet : public Network {
 public:
  /// @{
  /// Constructed, taken over by a copy and destroyed as every `Network`.
  FANet(const char* weightFile, int maxBatch, std::string prefix);
  FANet(FANet& other);
  ~FANet() override;
  /// @}

  /// @param images device memory, batch × 224 × 224 × 3 bytes
  /// @param out1 host memory, batch × 136 floats, in the order of the trained last layer
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 18432
  ///        values, 512 × 6 × 6, that enter the fully connected layers
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer layers_[9];
};
