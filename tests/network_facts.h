/// @file
/// What the tests know of each network independently of its table: geometry, pool blocks, graph.
#pragma once

#include "network_table.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>
#include <string>

namespace facezoo::test {

struct NetworkFacts {
  const char* name;
  int channels, size, outputDim;
  bool onDevice;         ///< where `out1` is
  int blocks;            ///< the most that `Forward` takes from the pool at once
  int largestTensor;     ///< bytes of one image
  const char* required;  ///< one of its weights, whose absence the constructor must notice
  std::string steps;     ///< see `Chain::run`
};

inline const std::string v1To4d =
    "image; cba:conv1/7x7_s2 64 7 2; max: 3 2 0; lrn: 5 1e-4 .75 1;"
    "cba:conv2/3x3_reduce 64; cba:conv2/3x3 192 3; lrn: 5 1e-4 .75 1; max: 3 2 0;"
    "v1:inception_3a/ 64 96 128 16 32 32; v1:inception_3b/ 128 128 192 32 96 64; max: 3 2 0;"
    "v1:inception_4a/ 192 96 208 16 48 64; v1:inception_4b/ 160 112 224 24 64 64;"
    "v1:inception_4c/ 128 128 256 24 64 64; v1:inception_4d/ 112 144 288 32 64 64;";
inline const std::string v1From4e =
    "v1:inception_4e/ 256 160 320 32 128 128; max: 3 2 0;"
    "v1:inception_5a/ 256 160 320 32 128 128; v1:inception_5b/ 384 192 384 48 128 128;";
inline const std::string twoHeads = "classify:acce_mouth 2; classify:acce_eye 3; get:heads";

inline const NetworkFacts networkFacts[] = {
    {"DexpressionNet", 1, 224, 5, false, 4, 272 * 56 * 56 * 4, "conv3c-1",
     "image; cba:conv1 64 7 2; max: 3 2 0; lrn: 5 1e-4 .75 1; set:a;"
     "cba:conv2a 96; cba:conv2b 208 3; join:b; get:a; max: 3 1 1; cba:conv2c 64; join:b;"
     "get:b; max: 3 2 0; set:a;"
     "cba:conv3a 96; cba:conv3b 208 3; join:c; get:a; max: 3 1 1; cba:conv3c 64; join:c;"
     "get:c; max: 3 2 0;" +
         twoHeads},
    {"FANet", 3, 224, 136, false, 2, 96 * 109 * 109 * 4, "68point-1",
     "image; cba:conv1 96 7 2 0; lrn: 5 5e-4 .75 2; max: 3 3 0; cba:conv2 256 5 1 0;"
     "max: 2 2 0; cba:conv3 512 3; cba:conv4 512 3; cba:conv5 512 3; max: 3 3 0; norm;"
     "flat; conv:fc6 4096; relu; conv:fc7 4096; relu; conv:68point 136"},
    {"GoogLeNet", 1, 256, 2048, true, 9, 64 * 128 * 128 * 4, "pca-1",
     v1To4d +
         "set:t; avg: 5 3 0; cba:loss2/conv 128; flat; conv:loss2/fc 1024; relu; join:y; get:t;" +
         v1From4e + "avg: 8 1 0; join:y; get:y; norm; project:pca 512"},
    // The branch loss1 has weights and leads nowhere.
    {"GoogLeNetBN", 3, 224, 2048, true, 9, 64 * 112 * 112 * 4, "loss1/fc-0",
     "means: 104 117 123; normalized:conv1/7x7_s2 64 7 2; max: 3 2 0;"
     "normalized:conv2/3x3_reduce 64; normalized:conv2/3x3 192 3; max: 3 2 0;"
     "v3:inception_3a/ 64 64 64 64 96 32 0; v3:inception_3b/ 64 64 96 64 96 64 0;"
     "v3:inception_3c/ 0 128 160 64 96; v3:inception_4a/ 224 64 96 96 128 128 0; set:t;"
     "avg: 5 3 0; normalized:loss1/conv 128; flat; normalized:loss1/fc 1024; get:t;"
     "v3:inception_4b/ 192 96 128 96 128 128 0; v3:inception_4c/ 160 128 160 128 160 96 0;"
     "v3:inception_4d/ 96 128 192 160 192 96 0; v3:inception_4e/ 0 128 192 192 256; set:t;"
     "avg: 5 3 0; normalized:loss2/conv 128; flat; normalized:loss2/fc 1024; join:y; get:t;"
     "v3:inception_5a/ 352 192 320 160 224 128 0; v3:inception_5b/ 352 192 320 192 224 128 1;"
     "avg: 7 1 0; join:y; get:y; norm; project:pca 1024"},
    {"GoogLeNet_FAA1ch", 1, 224, 5, false, 7, 64 * 112 * 112 * 4, "inMean-0",
     v1To4d + v1From4e + "avg: 7 1 0;" + twoHeads},
    {"GoogLeNet_FAA3ch", 3, 224, 5, false, 7, 64 * 112 * 112 * 4, "inception_5b/pool_proj-1",
     v1To4d + v1From4e + "avg: 7 1 0;" + twoHeads},
    {"GoogLeNet_FAA3ch_12tasks", 3, 224, 26, false, 7, 64 * 112 * 112 * 4,
     "loss3/classifier_lumi-1",
     v1To4d + v1From4e +
         "avg: 7 1 0; classify:acce_eye 3; classify:acce_mouth 2; classify:acce_head 2;"
         "classify:acce_hair 2; classify:condition_eye 4; classify:exp_mouth_open 4;"
         "classify:exp_mouth_corner 4; regress:yaw 1; regress:pitch 1; regress:blur 1;"
         "regress:noise 1; regress:lumi 1; get:heads"},
    {"LCNN29", 3, 128, 512, true, 3, 96 * 128 * 128 * 4, "10_conv2-1",
     "means; conv:conv1 96 5; mfm; max: 2 2 0; residual:1;"
     "conv:conv2_1 96; mfm; conv:conv2_2 192 3; mfm; max: 2 2 0; residual:2; residual:3;"
     "conv:conv3_1 192; mfm; conv:conv3_2 384 3; mfm; max: 2 2 0; residual:4; residual:5;"
     "residual:6; conv:conv4_1 192; mfm; conv:conv4_2 256 3; mfm; residual:7; residual:8;"
     "residual:9; residual:10; conv:conv5_1 256; mfm; conv:conv5_2 256 3; mfm; max: 2 2 0; norm;"
     "flat; conv:fc1 512"}};

/// @throws std::out_of_range if there are none
inline const NetworkFacts& factsOf(const NetworkTable& table) {
  const auto found = std::find_if(
      std::begin(networkFacts), std::end(networkFacts),
      [&](const NetworkFacts& facts) { return facts.name == std::string(table.name); });
  if (found == std::end(networkFacts))
    throw std::out_of_range(std::string("no facts of ") + table.name);
  return *found;
}

}  // namespace facezoo::test
