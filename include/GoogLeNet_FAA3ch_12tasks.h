/// @file
#pragma once

#include "facezoo/network.h"

/// Rates colour 224 × 224 face images with twelve heads: seven classifiers and five that give one
/// value each.
class FACEZOO_EXPORT GoogLeNet_FAA3ch_12tasks : public Network {
 public:
  /// @{
  /// `Network` says how networks are constructed, taken over by a copy and destroyed, and what that
  /// throws.
  GoogLeNet_FAA3ch_12tasks(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNet_FAA3ch_12tasks(GoogLeNet_FAA3ch_12tasks& other);
  ~GoogLeNet_FAA3ch_12tasks() override;
  /// @}

  /// Runs the network. `Network::Forward` describes `batch` and what is thrown.
  ///
  /// @param images device memory, batch × 224 × 224 × 3 interleaved bytes
  /// @param out1 host memory, batch × 26 floats. Per image the probabilities of the classifiers,
  ///        which sum to 1 for each of them: eye 3, mouth 2, head 2, hair 2, eye condition 4, mouth
  ///        open 4, mouth corner 4. Then the values of yaw, pitch, blur, noise and luminance, as
  ///        the last layer computes them
  /// @param out2 not used
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer trunk_[13];
  Layer eye_, mouth_, head_, hair_, eyeCondition_, mouthOpen_, mouthCorner_;
  Layer yaw_, pitch_, blur_, noise_, luminance_;
};
