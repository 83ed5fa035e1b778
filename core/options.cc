#include "core/options.h"

#include <cstdlib>
#include <cstring>

#include "core/library_state.h"
#include "host/support.h"
#include "varn.h"

namespace varn::core {
namespace {

// Copies an option argument into a heap string owned by the library.
bool CopyArg(char** slot, const char* value) {
  std::free(*slot);
  *slot = strdup(value);
  return *slot != nullptr;
}

enum class OptionKind { kFlag, kOne, kTwo };
struct Option {
  const char* name;
  OptionKind kind;
};
constexpr Option kOptions[] = {
    {"-quon_asciionly", OptionKind::kFlag}, {"-quon_debug", OptionKind::kFlag},
    {"-quon_disable", OptionKind::kOne},    {"-quon_enable", OptionKind::kTwo},
    {"-quon_noheader", OptionKind::kFlag},  {"-quon_outfile", OptionKind::kOne},
    {"-quon_parentid", OptionKind::kOne},   {"-quon_parentname", OptionKind::kOne},
    {"-quon_display", OptionKind::kOne},    {"-quon_sockfd", OptionKind::kOne},
    {"-quon_noconsole", OptionKind::kFlag}, {"-quon_sleep", OptionKind::kOne},
    {"-quon_stderr", OptionKind::kFlag},    {"-quon_channels", OptionKind::kOne},
    {"-quon_quonin", OptionKind::kOne},     {"-quon_quonout", OptionKind::kOne},
    {"-quon_links", OptionKind::kFlag},
};

// Applies one recognised option. False when a copy fails.
bool ApplyOption(const char* name, char** args, std::vector<EnableOption>* enables)
    REQUIRES(kLibrary) {
  LibraryState& s = State();
  Setup& setup = MutableSetup();
  auto is = [name](const char* n) { return gsl_strcmp(name, n) == 0; };
  if (is("-quon_asciionly")) return true;
  if (is("-quon_debug")) {
    setup.debug_flag = true;
    VarnChanType = VARN_CHAN_STANDALONE;
    return true;
  }
  if (is("-quon_disable")) {
    enables->push_back({false, args[0], "", false});
    return true;
  }
  if (is("-quon_enable")) {
    enables->push_back({true, args[0], args[1], true});
    return true;
  }
  if (is("-quon_noheader")) return setup.noheader_flag = true;
  if (is("-quon_links")) return setup.links_flag = true;
  if (is("-quon_outfile")) return CopyArg(&s.opt_outfile, args[0]);
  if (is("-quon_parentid")) {
    VarnChanType = VARN_CHAN_PIPE;
    return CopyArg(&s.opt_parentid, args[0]);
  }
  if (is("-quon_parentname")) return CopyArg(&s.opt_parentname, args[0]);
  if (is("-quon_display")) return CopyArg(&s.opt_display, args[0]);
  if (is("-quon_sockfd")) {
    if (!CopyArg(&s.opt_sockfd, args[0])) return false;
    setup.socket_fd = std::atoi(args[0]);
    VarnChanType = VARN_CHAN_SOCKET;
    return true;
  }
  if (is("-quon_noconsole")) return setup.noconsole_flag = true;
  if (is("-quon_sleep")) {
    if (!CopyArg(&s.opt_sleep, args[0])) return false;
    VarnSleepSecond = std::atoi(args[0]);
    return true;
  }
  if (is("-quon_stderr")) return setup.stderr_flag = true;
  if (is("-quon_channels")) {
    if (!CopyArg(&s.opt_channels, args[0])) return false;
    varn_num_chan(std::atoi(args[0]));
    return true;
  }
  if (is("-quon_quonin")) return CopyArg(&s.opt_quonin, args[0]);
  if (is("-quon_quonout")) return CopyArg(&s.opt_quonout, args[0]);
  return true;
}

}  // namespace

bool ScanOptions(int* argc, char** argv, std::vector<EnableOption>* enables) {
  int i = 1;
  while (i < *argc) {
    const Option* match = nullptr;
    for (const Option& o : kOptions) {
      if (gsl_strcmp(argv[i], o.name) == 0) {
        match = &o;
        break;
      }
    }
    if (match == nullptr) {
      ++i;
      continue;
    }
    int nargs = match->kind == OptionKind::kFlag ? 0 : match->kind == OptionKind::kOne ? 1 : 2;
    if (i + nargs >= *argc) break;  // arguments missing: stop the scan here
    if (!ApplyOption(match->name, argv + i + 1, enables)) {
      VarnErrorNo = VARN_E_MALLOC;
      return false;
    }
    varn_util_compress_args(argv, i, argc, nargs + 1);
  }
  return true;
}

bool ParseHexFd(const char* text, int* fd) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  long value = std::strtol(text, &end, 16);
  if (*end != '\0' || value < 0 || value > 0x7fffffff) return false;
  *fd = static_cast<int>(value);
  return true;
}

}  // namespace varn::core

extern "C" int varn_init_varn_line(void) noexcept {
  varn::core::OnApplicationThread();
  auto& s = varn::core::State();
  if (s.line_buffer != nullptr) return 1;
  s.line_buffer = static_cast<char*>(std::malloc(VARN_LINE_SIZE));
  if (s.line_buffer == nullptr) return 0;
  s.line_capacity = VARN_LINE_SIZE;
  return 1;
}
