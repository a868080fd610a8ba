// Loads a plugin that uses the library and unloads it again, UNLOADS times; then loads it once more
// and ends with a network that outlives the library's static objects. With STUB, another library
// that has the names of the GPU libraries' calls is loaded before or after the plugin.
//   unload_host PLUGIN WEIGHTS UNLOADS [before|after STUB]
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

/// Some descriptors stay on purpose when the library is unloaded: see `classWide`.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:classWide\n";
}

namespace {

std::shared_ptr<void> last;  // constructed before the library is loaded, so destroyed after it

template <class Function>
Function* symbol(void* plugin, const char* name) {
  return reinterpret_cast<Function*>(dlsym(plugin, name));
}

/// Loads `library`, and tells whether the process finds its functions under the names of the calls.
bool takesNames(const char* library) {
  if (dlopen(library, RTLD_NOW | RTLD_GLOBAL) == nullptr) return false;
  const auto call = symbol<int()>(RTLD_DEFAULT, "cudaMalloc");
  return call != nullptr && call() == 35;
}

}  // namespace

int main(int count, char** arguments) {
  const char* const file = arguments[1];
  if (count > 4) {
    const bool after = std::strcmp(arguments[4], "after") == 0;
    if (after && dlopen(file, RTLD_LAZY | RTLD_GLOBAL) == nullptr) return std::puts(dlerror());
    if (!takesNames(arguments[5])) return std::puts("names not taken");
  }
  for (int unloads = std::atoi(arguments[3]);; --unloads) {
    void* const plugin = dlopen(file, RTLD_NOW);
    if (plugin == nullptr) return std::puts(dlerror());
    void* const network = symbol<void*(const char*)>(plugin, "makeNetwork")(arguments[2]);
    if (unloads % 2 == 0) symbol<void(void*)>(plugin, "callNetwork")(network);
    if (unloads == 0) {
      last.reset(network, symbol<void(void*)>(plugin, "destroyNetwork"));
      return 0;
    }
    symbol<void(void*)>(plugin, "keepNetwork")(network);
    dlclose(plugin);
    if (dlopen(file, RTLD_NOW | RTLD_NOLOAD) != nullptr) return std::puts("still loaded");
  }
}
