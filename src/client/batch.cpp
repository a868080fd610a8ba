#include "client/batch.h"

#include "client/failure.h"

#include <cstdlib>
#include <fstream>

namespace facezoo {

long memoryKib(const std::string& field) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
  throw Failure("no " + field + " in the process's status");
}

void resetPeakMemory() { std::ofstream("/proc/self/clear_refs") << 5; }

Batch::Batch(const NetworkTable& table, int capacity, bool asksNorm)
    : size_(capacity),
      onDevice_(table.memory == Results::onDevice),
      imageBytes_(std::size_t(table.channels) * table.width * table.height),
      valueCount_(table.outputCount()),
      images_(capacity * imageBytes_),
      values_(capacity * valueCount_),
      norms_(asksNorm ? capacity : 0),
      input_(images_.size()),
      output_(values_.size() * sizeof(float)) {}

void Batch::upload() {
  checkCall(cudaMemcpy(input_.data(), images_.data(), size_ * imageBytes_, cudaMemcpyHostToDevice),
            "copy of images to the device");
}

void Batch::forward(Network& network) {
  network.Forward(input_.data(), size_,
                  onDevice_ ? static_cast<float*>(output_.data()) : values_.data(),
                  norms_.empty() ? nullptr : norms_.data());
}

void Batch::download() {
  if (!onDevice_) return;
  checkCall(cudaMemcpy(values_.data(), output_.data(), size_ * valueCount_ * sizeof(float),
                       cudaMemcpyDeviceToHost),
            "copy of results from the device");
}

}  // namespace facezoo
