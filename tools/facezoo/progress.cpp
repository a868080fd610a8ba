#include "progress.h"

#include "messages.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string>

Progress::Progress(std::size_t total, bool shown) {
  int ends[2] = {};
  if (!shown || pipe2(ends, O_CLOEXEC) != 0) return;
  pipe_ = ends[1];
  std::array<std::string, 10> words = {
      "pv",         "--line-mode", "--size", std::to_string(total), "-i", "0.5",
      "--progress", "--timer",     "--eta",  "--average-rate"};
  std::array<char*, words.size() + 1> arguments = {};
  std::transform(words.begin(), words.end(), arguments.begin(),
                 [](std::string& word) { return word.data(); });
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  const int error =
      posix_spawnp(&pv_, words[0].c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[0]);
  if (error != 0) {
    pv_ = -1;
    warn(std::string("progress is not shown: pv cannot be started: ") + std::strerror(error));
  }
}

Progress::~Progress() {
  if (pipe_ >= 0) close(pipe_);
  if (pv_ > 0) waitpid(pv_, nullptr, 0);
}

void Progress::add(std::size_t count) {
  const std::string lines(count, '\n');
  // A display that is not updated is no reason to fail.
  if (pv_ > 0 && write(pipe_, lines.data(), lines.size()) < 0) return;
}
