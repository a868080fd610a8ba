/// @file
#pragma once

#include "client/files.h"
#include "client/picture_limits.h"
#include "network_table.h"

#include <string>

/// How the 136 values of 68 landmarks are to be read, which the training of the weights decides.
struct LandmarkReading {
  bool pairs = true;   ///< x0 y0 x1 y1 …; else all x, then all y
  float scale = 1;     ///< pixels of the network's input for a value of 1
  bool orient = true;  ///< whether the network saw the picture turned as its Exif orientation says
};

/// Writes the picture at `path` as the PNG file `drawing`, with its landmarks as dots.
/// @param values 136, as the network gives them for that picture
/// @return how many of the landmarks lie outside of the picture
/// @throws Failure if the one cannot be read or the other not be written
int drawLandmarks(const std::string& path, const float* values, const LandmarkReading& reading,
                  const facezoo::InputGeometry& geometry, facezoo::PictureLimits& limits,
                  const facezoo::OutputPlace& drawing);
