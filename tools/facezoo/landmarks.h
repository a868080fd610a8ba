/// @file
#pragma once

#include "client/files.h"
#include "client/images.h"
#include "network_table.h"

/// How the 136 values of 68 landmarks are to be read, which the training of the weights decides.
struct LandmarkReading {
  bool pairs = true;  ///< x0 y0 x1 y1 …; else all x, then all y
  float scale = 1;    ///< pixels of the network's input for a value of 1
};

/// Draws the landmarks as dots into `picture`, and writes it as the PNG file `drawing`.
/// @param picture of red, green and blue, as the network saw it
/// @param values 136, as the network gives them for that picture
/// @return how many of the landmarks lie outside of the picture
/// @throws Failure if it cannot be written
int drawLandmarks(facezoo::Picture& picture, const float* values, const LandmarkReading& reading,
                  const facezoo::InputGeometry& geometry, const facezoo::OutputPlace& drawing);
