/// @file
#pragma once

#include "facezoo/network.h"

/// Rates colour 224 × 224 face images with twelve heads.
class FACEZOO_EXPORT GoogLeNet_FAA3ch_12tasks : public Network {
 public:
  /// @{
  /// Constructed, taken over by a copy and destroyed as every `Network`.
  GoogLeNet_FAA3ch_12tasks(const char* weightFile, int maxBatch, std::string prefix);
  GoogLeNet_FAA3ch_12tasks(GoogLeNet_FAA3ch_12tasks& other);
  ~GoogLeNet_FAA3ch_12tasks() override;
  /// @}

  /// @param images device memory, batch × 224 × 224 × 3 bytes
  /// @param out1 host memory, batch × 26 floats. Per image the probabilities of seven classifiers,
  ///        each summing to 1: eye 3, mouth 2, head 2, hair 2, eye condition 4, mouth open 4, mouth
  ///        corner 4; then one value each of yaw, pitch, blur, noise and luminance, as computed
  /// @param out2 not used
  int Forward(void* images, int batch, float* out1, float* out2) override;

 private:
  Layer trunk_[13];
  Layer eye_, mouth_, head_, hair_, eyeCondition_, mouthOpen_, mouthCorner_;
  Layer yaw_, pitch_, blur_, noise_, luminance_;
};
