/// @file
/// What each network is made of, as data: geometry, pool sizing, the layers with weights in the
/// order of their creation, and the groups of its results. The constructors build from these
/// tables; the tool checks and synthesizes weights by them.
#pragma once

#include "layer_table.h"

namespace facezoo {

/// Values that belong together and follow each other in a network's result for one image.
struct OutputGroup {
  const char* name;
  int count;
};

enum class Results { onHost, onDevice };
inline constexpr bool withNorm = true;
inline constexpr bool withoutNorm = false;

struct InputGeometry {
  int channels, width, height;
};
struct PoolSizing {
  int perImageBytes;  ///< size of a pool block for each image of a batch; at least the largest
                      ///< activation of one image
  int bufferCount;    ///< number of pool blocks; at least as many as `Forward` takes at once
};
struct NetworkTable : InputGeometry, PoolSizing {
  const char* name;
  int outputDim;
  View<LayerRow> layers;
  View<OutputGroup> outputs;  ///< what `Forward` writes to `out1`
  Results memory;             ///< of `out1`
  bool hasNorm;               ///< `Forward` can write one norm per image to `out2`

  /// Values per image in `out1`. `outputDim` is more where a projection makes them fewer.
  constexpr int outputCount() const {
    int count = 0;
    for (const OutputGroup& group : outputs) count += group.count;
    return count;
  }
};

template <std::size_t N, std::size_t M>
constexpr std::array<LayerRow, N + M> join(const std::array<LayerRow, N>& first,
                                           const LayerRow (&second)[M]) {
  std::array<LayerRow, N + M> all = {};
  for (std::size_t i = 0; i < N; ++i) all[i] = first[i];
  for (std::size_t i = 0; i < M; ++i) all[N + i] = second[i];
  return all;
}

inline constexpr LayerRow dexpressionLayers[] = {
    meanImage(224, 224, 1),
    fusedConvolution("conv1", 1, 64, 7, 2, samePadding),
    fusedConvolution("conv2a", 64, 96, 1, 1, noPadding),
    fusedConvolution("conv2b", 96, 208, 3, 1, samePadding),
    fusedConvolution("conv2c", 64, 64, 1, 1, noPadding),
    fusedConvolution("conv3a", 272, 96, 1, 1, noPadding),
    fusedConvolution("conv3b", 96, 208, 3, 1, samePadding),
    fusedConvolution("conv3c", 272, 64, 1, 1, noPadding),
    innerProduct("loss3/classifier_acce_mouth", 272, 14, 2, withBias),
    innerProduct("loss3/classifier_acce_eye", 272, 14, 3, withBias),
};
inline constexpr OutputGroup mouthAndEye[] = {{"mouth", 2}, {"eye", 3}};
inline constexpr NetworkTable dexpressionNet = {
    {1, 224, 224},           {272 * 56 * 56 * 4, 4}, "DexpressionNet", 5,
    view(dexpressionLayers), view(mouthAndEye),      Results::onHost,  withoutNorm};

inline constexpr LayerRow faNetLayers[] = {
    meanImage(224, 224, 3),
    fusedConvolution("conv1", 3, 96, 7, 2, noPadding),
    fusedConvolution("conv2", 96, 256, 5, 1, noPadding),
    fusedConvolution("conv3", 256, 512, 3, 1, samePadding),
    fusedConvolution("conv4", 512, 512, 3, 1, samePadding),
    fusedConvolution("conv5", 512, 512, 3, 1, samePadding),
    innerProduct("fc6", 512, 6, 4096, withBias),
    innerProduct("fc7", 4096, 4096, withBias),
    innerProduct("68point", 4096, 136, withBias),
};
inline constexpr OutputGroup landmarks[] = {{"landmarks", 136}};
inline constexpr NetworkTable faNet = {
    {3, 224, 224},     {96 * 109 * 109 * 4, 3}, "FANet",         136,
    view(faNetLayers), view(landmarks),         Results::onHost, withNorm};

/// The Inception V1 trunk of four networks (Szegedy et al., "Going deeper with convolutions").
constexpr std::array<LayerRow, 13> inceptionV1Trunk(int edge, int channels) {
  return {{meanImage(edge, edge, channels),
           fusedConvolution("conv1/7x7_s2", channels, 64, 7, 2, samePadding),
           fusedConvolution("conv2/3x3_reduce", 64, 64, 1, 1, noPadding),
           fusedConvolution("conv2/3x3", 64, 192, 3, 1, samePadding),
           inceptionV1("inception_3a/", 192, {64, 96, 128, 16, 32, 32}),
           inceptionV1("inception_3b/", 256, {128, 128, 192, 32, 96, 64}),
           inceptionV1("inception_4a/", 480, {192, 96, 208, 16, 48, 64}),
           inceptionV1("inception_4b/", 512, {160, 112, 224, 24, 64, 64}),
           inceptionV1("inception_4c/", 512, {128, 128, 256, 24, 64, 64}),
           inceptionV1("inception_4d/", 512, {112, 144, 288, 32, 64, 64}),
           inceptionV1("inception_4e/", 528, {256, 160, 320, 32, 128, 128}),
           inceptionV1("inception_5a/", 832, {256, 160, 320, 32, 128, 128}),
           inceptionV1("inception_5b/", 832, {384, 192, 384, 48, 128, 128})}};
}

inline constexpr LayerRow googLeNetEnd[] = {
    fusedConvolution("loss2/conv", 528, 128, 1, 1, noPadding),
    innerProduct("loss2/fc", 128, 5, 1024, withBias),
    projection("pca", 512),
};
inline constexpr auto googLeNetLayers = join(inceptionV1Trunk(256, 1), googLeNetEnd);
inline constexpr OutputGroup features512[] = {{"features", 512}};
inline constexpr NetworkTable googLeNet = {
    {1, 256, 256},         {64 * 128 * 128 * 4, 10}, "GoogLeNet",       2048,
    view(googLeNetLayers), view(features512),        Results::onDevice, withNorm};

/// In the order of creation. The results of the two-head networks begin with the mouth's.
inline constexpr LayerRow eyeAndMouthHeads[] = {
    innerProduct("loss3/classifier_acce_eye", 1024, 3, withBias),
    innerProduct("loss3/classifier_acce_mouth", 1024, 2, withBias),
};
inline constexpr auto faa1chLayers = join(inceptionV1Trunk(224, 1), eyeAndMouthHeads);
inline constexpr NetworkTable googLeNetFAA1ch = {
    {1, 224, 224},      {64 * 112 * 112 * 4, 7}, "GoogLeNet_FAA1ch", 5,
    view(faa1chLayers), view(mouthAndEye),       Results::onHost,    withoutNorm};

inline constexpr auto faa3chLayers = join(inceptionV1Trunk(224, 3), eyeAndMouthHeads);
inline constexpr NetworkTable googLeNetFAA3ch = {
    {3, 224, 224},      {64 * 128 * 128 * 4, 10}, "GoogLeNet_FAA3ch", 5,
    view(faa3chLayers), view(mouthAndEye),        Results::onHost,    withoutNorm};

inline constexpr LayerRow twelveHeads[] = {
    innerProduct("loss3/classifier_acce_eye", 1024, 3, withBias),
    innerProduct("loss3/classifier_acce_mouth", 1024, 2, withBias),
    innerProduct("loss3/classifier_acce_head", 1024, 2, withBias),
    innerProduct("loss3/classifier_acce_hair", 1024, 2, withBias),
    innerProduct("loss3/classifier_condition_eye", 1024, 4, withBias),
    innerProduct("loss3/classifier_exp_mouth_open", 1024, 4, withBias),
    innerProduct("loss3/classifier_exp_mouth_corner", 1024, 4, withBias),
    innerProduct("loss3/classifier_yaw", 1024, 1, withBias),
    innerProduct("loss3/classifier_pitch", 1024, 1, withBias),
    innerProduct("loss3/classifier_blur", 1024, 1, withBias),
    innerProduct("loss3/classifier_noise", 1024, 1, withBias),
    innerProduct("loss3/classifier_lumi", 1024, 1, withBias),
};
inline constexpr auto twelveTasksLayers = join(inceptionV1Trunk(224, 3), twelveHeads);
inline constexpr OutputGroup twelveTasks[] = {
    {"eye", 3},           {"mouth", 2},      {"head", 2},         {"hair", 2},
    {"eye_condition", 4}, {"mouth_open", 4}, {"mouth_corner", 4}, {"yaw", 1},
    {"pitch", 1},         {"blur", 1},       {"noise", 1},        {"luminance", 1}};
inline constexpr NetworkTable googLeNetFAA3ch12tasks = {{3, 224, 224},
                                                        {64 * 128 * 128 * 4, 7},
                                                        "GoogLeNet_FAA3ch_12tasks",
                                                        26,
                                                        view(twelveTasksLayers),
                                                        view(twelveTasks),
                                                        Results::onHost,
                                                        withoutNorm};

inline constexpr LayerRow lcnn29Layers[] = {
    noMean(3),
    convolution("conv1", 3, 96, 5, 1, samePadding, withBias),
    convolution("conv2_1", 48, 96, 1, 1, noPadding, withBias),
    convolution("conv2_2", 48, 192, 3, 1, samePadding, withBias),
    convolution("conv3_1", 96, 192, 1, 1, noPadding, withBias),
    convolution("conv3_2", 96, 384, 3, 1, samePadding, withBias),
    convolution("conv4_1", 192, 192, 1, 1, noPadding, withBias),
    convolution("conv4_2", 96, 256, 3, 1, samePadding, withBias),
    convolution("conv5_1", 128, 256, 1, 1, noPadding, withBias),
    convolution("conv5_2", 128, 256, 3, 1, samePadding, withBias),
    inceptionMFM("1", 48),
    inceptionMFM("2", 96),
    inceptionMFM("3", 96),
    inceptionMFM("4", 192),
    inceptionMFM("5", 192),
    inceptionMFM("6", 192),
    inceptionMFM("7", 128),
    inceptionMFM("8", 128),
    inceptionMFM("9", 128),
    inceptionMFM("10", 128),
    innerProduct("fc1", 128, 8, 512, withBias),
};
inline constexpr NetworkTable lcnn29 = {
    {3, 128, 128},      {96 * 128 * 128 * 4, 5}, "LCNN29",          512,
    view(lcnn29Layers), view(features512),       Results::onDevice, withNorm};

/// The "loss1/" layers are part of the weight file, though `Forward` does not run them.
inline constexpr LayerRow googLeNetBNLayers[] = {
    channelMean(104, 117, 123),
    convolution("conv1/7x7_s2", 3, 64, 7, 2, samePadding, noBias),
    batchNormalization("conv1/7x7_s2/bn", 64),
    convolution("conv2/3x3_reduce", 64, 64, 1, 1, noPadding, noBias),
    batchNormalization("conv2/3x3_reduce/bn", 64),
    convolution("conv2/3x3", 64, 192, 3, 1, samePadding, noBias),
    batchNormalization("conv2/3x3/bn", 192),
    inceptionV3_1("inception_3a/", 192, {64, 64, 64, 64, 96, 32}, averagePooled),
    inceptionV3_1("inception_3b/", 256, {64, 64, 96, 64, 96, 64}, averagePooled),
    inceptionV3_2("inception_3c/", 320, {0, 128, 160, 64, 96, 0}),
    inceptionV3_1("inception_4a/", 576, {224, 64, 96, 96, 128, 128}, averagePooled),
    inceptionV3_1("inception_4b/", 576, {192, 96, 128, 96, 128, 128}, averagePooled),
    inceptionV3_1("inception_4c/", 576, {160, 128, 160, 128, 160, 96}, averagePooled),
    inceptionV3_1("inception_4d/", 576, {96, 128, 192, 160, 192, 96}, averagePooled),
    inceptionV3_2("inception_4e/", 576, {0, 128, 192, 192, 256, 0}),
    inceptionV3_1("inception_5a/", 1024, {352, 192, 320, 160, 224, 128}, averagePooled),
    inceptionV3_1("inception_5b/", 1024, {352, 192, 320, 192, 224, 128}, maxPooled),
    convolution("loss1/conv", 576, 128, 1, 1, noPadding, noBias),
    batchNormalization("loss1/conv/bn", 128),
    innerProduct("loss1/fc", 128, 4, 1024, noBias),
    batchNormalization("loss1/fc/bn", 1024),
    convolution("loss2/conv", 1024, 128, 1, 1, noPadding, noBias),
    batchNormalization("loss2/conv/bn", 128),
    innerProduct("loss2/fc", 128, 2, 1024, noBias),
    batchNormalization("loss2/fc/bn", 1024),
    projection("pca", 1024),
};
inline constexpr OutputGroup features1024[] = {{"features", 1024}};
inline constexpr NetworkTable googLeNetBN = {
    {3, 224, 224},           {64 * 112 * 112 * 4, 10}, "GoogLeNetBN",     2048,
    view(googLeNetBNLayers), view(features1024),       Results::onDevice, withNorm};

}  // namespace facezoo
