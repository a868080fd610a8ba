/// @file
#pragma once

#include "facezoo/network.h"

/// Locates 68 landmarks in a colour 224 × 224 face image: 136 values.
class FACEZOO_EXPORT FANet : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  FANet(const char* weightFile, int maxBatch, std::string prefix);
  FANet(FANet& other);
  ~FANet() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 224 × 224 × 3 interleaved bytes
  /// @param out1 host memory, batch × 136 floats; the training of the weights decides their order
  ///        and their unit
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 18432
  ///        values, 512 × 6 × 6, that enter the fully connected layers
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer layers_[9];
};
