/// @file
/// Shapes of layers. The tests check the layers on all of them; the benchmarks time those that
/// occur in the networks.
#pragma once

#include "layer_table.h"

namespace facezoo::test {

/// A layer with weights, and the tensor that it is given.
struct LayerShape {
  LayerRow row;
  int batch, height, width;
  int outHeight = height, outWidth = width;  ///< of what it makes of it
};

/// The double-precision reference would take minutes for all output channels of these, so that the
/// tests compute no more than `testedOutputs` of them: a few full groups of rows, and one that is
/// not full.
inline constexpr int testedOutputs = 17;
inline constexpr LayerShape networkLayers[] = {
    {fusedConvolution("Inception_V1_conv1", 3, 64, 7, 2, samePadding), 1, 224, 224, 112, 112},
    {fusedConvolution("Inception_V1_conv2_reduce", 64, 64, 1, 1, noPadding), 1, 56, 56},
    {fusedConvolution("Inception_V1_conv2", 64, 192, 3, 1, samePadding), 1, 56, 56},
    {fusedConvolution("Inception_V1_3a_3x3", 96, 128, 3, 1, samePadding), 1, 28, 28},
    {fusedConvolution("Inception_V1_3a_5x5", 16, 32, 5, 1, samePadding), 1, 28, 28},
    {fusedConvolution("Inception_V1_4a_1x1", 480, 192, 1, 1, noPadding), 1, 14, 14},
    {fusedConvolution("Inception_V1_4d_3x3", 144, 288, 3, 1, samePadding), 1, 14, 14},
    {fusedConvolution("Inception_V1_4e_5x5", 32, 128, 5, 1, samePadding), 1, 14, 14},
    {fusedConvolution("Inception_V1_5b_1x1", 832, 384, 1, 1, noPadding), 1, 7, 7},
    {fusedConvolution("Inception_V1_5b_3x3", 192, 384, 3, 1, samePadding), 1, 7, 7},
    {fusedConvolution("Inception_V1_5b_5x5", 48, 128, 5, 1, samePadding), 1, 7, 7},
    {fusedConvolution("DexpressionNet_conv1", 1, 64, 7, 2, samePadding), 1, 224, 224, 112, 112},
    {fusedConvolution("DexpressionNet_conv2b", 96, 208, 3, 1, samePadding), 1, 56, 56},
    {fusedConvolution("FANet_conv1", 3, 96, 7, 2, noPadding), 1, 224, 224, 109, 109},
    {fusedConvolution("FANet_conv2", 96, 256, 5, 1, noPadding), 1, 37, 37, 33, 33},
    {fusedConvolution("FANet_conv4", 512, 512, 3, 1, samePadding), 1, 17, 17},
    {convolution("GoogLeNetBN_3a_double3x3b", 96, 96, 3, 1, samePadding, noBias), 1, 28, 28},
    {convolution("GoogLeNetBN_3c_3x3", 128, 160, 3, 2, samePadding, noBias), 1, 28, 28, 14, 14},
    {convolution("LCNN29_conv1", 3, 96, 5, 1, samePadding, withBias), 1, 128, 128},
    {convolution("LCNN29_block1", 48, 96, 3, 1, samePadding, withBias), 1, 64, 64},
    {convolution("LCNN29_conv3_2", 96, 384, 3, 1, samePadding, withBias), 1, 32, 32},
    {convolution("LCNN29_conv4_1", 192, 192, 1, 1, noPadding, withBias), 1, 16, 16},
    {convolution("LCNN29_block7", 128, 256, 3, 1, samePadding, withBias), 1, 16, 16},
    {innerProduct("FANet_fc6", 512 * 6 * 6, 4096, withBias), 1, 1, 1},
    {innerProduct("FANet_68point", 4096, 136, withBias), 1, 1, 1},
    {innerProduct("GoogLeNet_loss2_fc", 128 * 5 * 5, 1024, withBias), 1, 1, 1},
    {innerProduct("head", 1024, 3, withBias), 1, 1, 1},
    {innerProduct("LCNN29_fc1", 128 * 8 * 8, 512, withBias), 1, 1, 1},
    {projection("GoogLeNet_pca", 512), 1, 1, 1},
    {batchNormalization("GoogLeNetBN_conv1", 64), 1, 112, 112},
    {batchNormalization("GoogLeNetBN_4a_1x1", 224), 1, 14, 14},
};

/// Shapes at which an implementation has to change its way: single values, odd sizes, rests.
inline constexpr LayerShape edgeLayers[] = {
    {fusedConvolution("one_value", 1, 1, 1, 1, samePadding), 1, 1, 1},
    {fusedConvolution("filter_larger_than_map", 1, 3, 3, 1, samePadding), 5, 1, 1},
    {fusedConvolution("filter_as_large_as_map", 3, 4, 7, 1, noPadding), 1, 7, 7, 1, 1},
    {fusedConvolution("7x7_strided", 1, 16, 7, 2, samePadding), 1, 64, 64, 32, 32},
    {fusedConvolution("7x7_strided_unpadded", 3, 8, 7, 2, noPadding), 2, 56, 57, 25, 26},
    {fusedConvolution("3x3", 3, 4, 3, 1, samePadding), 5, 7, 9},
    {fusedConvolution("3x3_many_channels", 20, 24, 3, 1, samePadding), 1, 13, 11},
    {fusedConvolution("3x3_unpadded", 16, 33, 3, 1, noPadding), 5, 14, 14, 12, 12},
    {fusedConvolution("3x3_strided", 6, 9, 3, 2, samePadding), 2, 13, 12, 7, 6},
    {fusedConvolution("5x5", 5, 7, 5, 1, samePadding), 2, 9, 6},
    {fusedConvolution("1x1_many_outputs", 64, 96, 1, 1, noPadding), 1, 28, 28},
    {fusedConvolution("1x1_odd", 33, 17, 1, 1, samePadding), 5, 7, 5},
    {fusedConvolution("1x1_strided", 4, 5, 1, 2, noPadding), 2, 11, 10, 6, 5},
    // A few outputs that fill no vector, behind whole vectors and alone. Input, output and packed
    // filter end where their memory ends, so that AddressSanitizer sees what is read beyond.
    {fusedConvolution("1x1_narrow_rest", 64, 64, 1, 1, noPadding), 1, 1, 17},
    {fusedConvolution("1x1_narrow", 64, 64, 1, 1, noPadding), 3, 1, 1},
    {innerProduct("one_product", 1, 1, withBias), 1, 1, 1},
    {innerProduct("map", 3 * 5 * 7, 11, withBias), 1, 5, 7},
    {innerProduct("two_maps", 3 * 5 * 7, 11, withBias), 2, 5, 7},
    {innerProduct("five_large_maps", 512 * 6 * 6, 3, withBias), 5, 6, 6},
    {innerProduct("large_map", 512 * 6 * 6, 3, withBias), 1, 6, 6},
    {innerProduct("five_odd", 37, 130, withBias), 5, 1, 1},
    {innerProduct("many_outputs", 512 * 2 * 2, 130, withBias), 1, 2, 2},
    {innerProduct("five_vectors", 2048, 7, withBias), 5, 1, 1},
    {batchNormalization("odd_channels", 17), 5, 5, 7},
    {batchNormalization("vector", 1024), 1, 1, 1},
    {batchNormalization("maps", 64), 2, 14, 14},
};

/// Images that networks convert to floats, and what they subtract.
inline constexpr LayerShape networkInputs[] = {{meanImage(224, 224, 1), 1, 224, 224},
                                               {meanImage(224, 224, 3), 1, 224, 224},
                                               {noMean(3), 1, 128, 128}};
inline constexpr LayerShape edgeInputs[] = {
    {noMean(1), 1, 1, 1},  {noMean(3), 1, 2, 2},  {noMean(3), 5, 1, 33},  {noMean(1), 2, 33, 31},
    {noMean(3), 5, 7, 64}, {noMean(2), 2, 65, 3}, {noMean(3), 2, 67, 83}, {noMean(1), 1, 2, 8999},
};

struct PoolingShape {
  int batch, channels, height, width, window, stride, pad, outHeight, outWidth;
  bool average = false;  ///< what the networks pool there; the tests check both
};
inline constexpr PoolingShape networkPoolings[] = {
    {1, 64, 112, 112, 3, 2, 0, 56, 56},      {1, 480, 14, 14, 3, 1, 1, 14, 14},
    {1, 96, 109, 109, 3, 3, 0, 37, 37},      {1, 48, 128, 128, 2, 2, 0, 64, 64},
    {1, 576, 14, 14, 3, 1, 1, 14, 14, true}, {1, 528, 16, 16, 5, 3, 0, 5, 5, true},
    {1, 1024, 7, 7, 7, 1, 0, 1, 1, true},
};
inline constexpr PoolingShape edgePoolings[] = {
    {1, 1, 1, 1, 1, 1, 0, 1, 1},    {1, 1, 2, 2, 3, 2, 0, 1, 1},   {5, 2, 28, 28, 3, 1, 1, 28, 28},
    {2, 3, 14, 14, 3, 2, 0, 7, 7},  {2, 3, 7, 7, 5, 3, 0, 2, 2},   {1, 2, 16, 16, 5, 3, 0, 5, 5},
    {5, 3, 7, 7, 7, 1, 0, 1, 1},    {2, 5, 13, 10, 3, 2, 1, 7, 6}, {1, 2, 6, 9, 2, 2, 0, 3, 5},
    {1, 16, 9, 33, 3, 1, 1, 9, 33}, {2, 3, 17, 20, 3, 3, 0, 6, 7},
};

/// What layers without weights are given.
struct MapShape {
  int batch, channels, height, width;
};
inline constexpr MapShape networkLrns[] = {{1, 64, 56, 56}, {1, 192, 56, 56}, {1, 96, 109, 109}};
inline constexpr MapShape networkRelus[] = {{1, 64, 112, 112}, {1, 4096, 1, 1}};
inline constexpr MapShape networkSoftmaxes[] = {{1, 4, 1, 1}};
inline constexpr MapShape networkMaxima[] = {{1, 96, 128, 128}, {1, 384, 32, 32}};
inline constexpr MapShape networkSums[] = {{1, 48, 64, 64}};
inline constexpr MapShape networkConcats[] = {{1, 128, 28, 28}};
inline constexpr MapShape networkNorms[] = {{1, 2048, 1, 1}, {1, 512, 6, 6}};
inline constexpr MapShape edgeLrns[] = {{2, 17, 9, 5}};
inline constexpr MapShape edgeSoftmaxes[] = {
    {1, 1, 3, 2}, {1, 2, 1, 1}, {5, 3, 1, 1}, {5, 26, 1, 1}, {2, 4, 3, 5}};
inline constexpr MapShape edgePairs[] = {
    {1, 2, 1, 1}, {5, 6, 3, 5}, {2, 4, 16, 32}, {2, 10, 67, 71}};
inline constexpr MapShape edgeNorms[] = {{2, 1, 1, 1},   {129, 4, 1, 1}, {129, 5, 1, 1},
                                         {300, 7, 1, 1}, {5, 131, 1, 1}, {5, 2048, 1, 1},
                                         {5, 128, 8, 8}, {5, 512, 6, 6}};

}  // namespace facezoo::test
