// The "RemoteFile" interface object: the file operations of the library on
// a remote stream when the process is connected by a socket (local = 0).
#include <cstdio>

#include "plugin/interface_objects.h"
#include "varn.h"

namespace varn::plugin {
namespace {

class VarnRemoteFileInterface final : public RemoteFileInterface {
 public:
  int version() override { return VARN_REMOTE_FILE_INTERFACE_VERSION; }
  FILE* fopen(const char* name, const char* mode) override {
    return varn_file_fopen(name, mode, 0);
  }
  int fclose(FILE* stream) override { return varn_file_fclose(stream, 0); }
  int fputs(const char* text, FILE* stream) override { return varn_fputs(stream, text, 0); }
  bool readline(char** line, FILE* stream) override {
    varn_init_varn_line();
    return varn_readlineP(stream, line, 0) != 0;
  }
};

}  // namespace

RemoteFileInterface* NewRemoteFileInterface() { return new (std::nothrow) VarnRemoteFileInterface; }

}  // namespace varn::plugin
