/// @file
#pragma once

#include "facezoo/network.h"

/// Describes a colour 128 × 128 face image by 512 features, which are not normalized.
class FACEZOO_EXPORT LCNN29 : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  LCNN29(const char* weightFile, int maxBatch, std::string prefix);
  LCNN29(LCNN29& other);
  ~LCNN29() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 128 × 128 × 3 interleaved bytes
  /// @param out1 device memory, batch × 512 floats
  /// @param out2 host memory, batch floats, or null: per image the L2 norm of the 8192
  ///        values, 128 × 8 × 8, that enter the fully connected layer
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer layers_[21];
};
