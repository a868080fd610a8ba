// Loads a plugin that uses the library and unloads it again, as often as it is told; then ends with
// a network that outlives the library's static objects.
//   unload_host PLUGIN WEIGHTS UNLOADS
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

/// Descriptors that stay when the library goes, on purpose: see `classWide`.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "leak:classWide\n";
}

namespace {

std::shared_ptr<void> last;  // constructed before the library is loaded, so destroyed after it

template <class Function>
Function* symbol(void* plugin, const char* name) {
  return reinterpret_cast<Function*>(dlsym(plugin, name));
}

}  // namespace

int main(int, char** arguments) {
  const char* const file = arguments[1];
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
