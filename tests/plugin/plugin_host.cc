// The program a plug-in is loaded into: the library is loaded with it (and
// registers its interface objects while it loads); it loads the plug-in and
// runs it with its own command line. It calls nothing of the library
// itself.
//   varn_test_plugin_host PLUGIN REPORT FILE [-quon_... options]
#include <dlfcn.h>

#include <cstdio>

using Run = int (*)(int* argc, char** argv, const char* file, std::FILE* report);

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: varn_test_plugin_host PLUGIN REPORT FILE\n");
    return 2;
  }
  void* plugin = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return 2;
  }
  auto run = reinterpret_cast<Run>(dlsym(plugin, "varn_test_plugin_run"));
  std::FILE* report = std::fopen(argv[2], "w");
  if (run == nullptr || report == nullptr) return 2;
  int status = run(&argc, argv, argv[3], report);
  std::fclose(report);
  return status;
}
