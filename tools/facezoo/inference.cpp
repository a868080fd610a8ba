#include "inference.h"

Inference::Inference(Network& network, const facezoo::NetworkTable& table, int maxBatch)
    : network_(network),
      onDevice_(table.memory == facezoo::Results::onDevice),
      imageBytes_(std::size_t(table.channels) * table.width * table.height),
      resultCount_(table.outputCount()),
      images_(maxBatch * imageBytes_),
      results_(maxBatch * resultCount_),
      norms_(table.hasNorm ? maxBatch : 0),
      input_(images_.size()),
      output_(onDevice_ ? results_.size() * sizeof(float) : 1) {}

void Inference::run(std::size_t count) {
  checkCall(cudaMemcpy(input_.data(), images_.data(), count * imageBytes_, cudaMemcpyHostToDevice),
            "copy of images to the device");
  network_.Forward(input_.data(), static_cast<int>(count),
                   onDevice_ ? static_cast<float*>(output_.data()) : results_.data(),
                   norms_.empty() ? nullptr : norms_.data());
  if (!onDevice_) return;
  checkCall(cudaMemcpy(results_.data(), output_.data(), count * resultCount_ * sizeof(float),
                       cudaMemcpyDeviceToHost),
            "copy of results from the device");
}
