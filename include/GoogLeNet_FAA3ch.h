/// @file
#pragma once

#include "facezoo/network.h"

/// Classifies colour 224 × 224 face images with two heads, one for the mouth and one for
/// the eyes.
class FACEZOO_EXPORT GoogLeNet_FAA3ch : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  GoogLeNet_FAA3ch(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNet_FAA3ch(GoogLeNet_FAA3ch& other);
  ~GoogLeNet_FAA3ch() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 224 × 224 × 3 interleaved bytes
  /// @param out1 host memory, batch × 5 floats: per image two probabilities of the mouth head, then
  ///        three of the eye head; each head sums to 1
  /// @param out2 not used
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer trunk_[13];
  Layer eye_, mouth_;
};
