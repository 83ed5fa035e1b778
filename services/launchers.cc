// Launchers of the tool programs that a process runs once and shares among
// its users: the dataset server, the display server, the data-flow tool
// and the instrument server. Each returns the handle of a usable running
// instance and starts one only when there is none. Application's thread.
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/api_entry.h"
#include "core/diag.h"
#include "core/rows.h"
#include "host/memory.h"
#include "host/settings.h"
#include "varn.h"

namespace {

namespace core = varn::core;

// One tool: its handle, and whether this process started or adopted it.
struct Tool {
  varnHandle handle = -1;
  bool started = false;
};

Tool g_dataset GUARDED_BY(core::kLibrary);
Tool g_display GUARDED_BY(core::kLibrary);
Tool g_dftool GUARDED_BY(core::kLibrary);
Tool g_instrument GUARDED_BY(core::kLibrary);
// The answer of varn_dataset_is_merged: -1 until it is first asked.
int g_merged GUARDED_BY(core::kLibrary) = -1;

constexpr const char* kDataset = "dravodss";
constexpr const char* kDisplay = "dravodds";
constexpr const char* kDftool = "velordftool";
constexpr const char* kInstrument = "dravoinstrio";

// Whether the status of h can be asked, and the status.
bool QueryStatus(varnHandle h, uint32_t* status) {
  char text[VARN_STATUS_TEXT_SIZE];
  return varn_query_status(h, status, text) != 0;
}

// The tool's running instance when it answers and is not DEAD; otherwise
// it is killed and forgotten, and -1 is returned.
int KeepIfAlive(Tool& tool) {
  if (tool.started && tool.handle >= 0) {
    uint32_t status = VARN_STATUS_DEAD;
    if (QueryStatus(tool.handle, &status) && status != VARN_STATUS_DEAD) return tool.handle;
    varn_kill(tool.handle);
  }
  tool.started = false;
  tool.handle = -1;
  return -1;
}

int Start(Tool& tool, const char* program, const char* args, uint32_t keep) {
  char error_text[VARN_STATUS_TEXT_SIZE];
  varnHandle h = -1;
  if (!varn_invoke(&h, program, nullptr, args, keep, error_text, nullptr)) {
    tool.started = false;
    tool.handle = -1;
    return -1;
  }
  tool.handle = h;
  tool.started = true;
  return h;
}

// The data-flow tool and the instrument server: kept, started without
// arguments.
int InvokeKept(Tool& tool, const char* program) REQUIRES(core::kLibrary) {
  if (!core::EnterCall()) return -1;
  if (KeepIfAlive(tool) >= 0) return tool.handle;
  return Start(tool, program, nullptr, 1);
}

bool SeparateDatasetServer(const char* value) {
  char c = value[0];
  return c == 'Y' || c == 'y' || (c >= '1' && c <= '9');
}

int DatasetInvoke(const char* args, bool with_args) REQUIRES(core::kLibrary) {
  if (!core::EnterCall()) return -1;
  Tool& tool = g_dataset;
  if (tool.started) {
    uint32_t status = 0;
    // Any status will do, as long as the server answers.
    if (tool.handle >= 0 && QueryStatus(tool.handle, &status)) return tool.handle;
    tool.handle = -1;
  }
  tool.started = false;
  if (varn_dataset_is_merged()) {
    tool.handle = with_args ? varn_dds_invoke_with_args(args ? args : "") : varn_dds_invoke();
    tool.started = true;
    return tool.handle;
  }
  return Start(tool, kDataset, with_args && args ? args : "", 0);
}

}  // namespace

extern "C" int varn_dds_invoke_with_args(const char* args) noexcept {
  if (!core::EnterCall()) return -1;
  Tool& tool = g_display;
  if (KeepIfAlive(tool) >= 0) return tool.handle;
  // A display server that another call of this process started is taken
  // over.
  int count = core::ActiveCount();
  for (int i = 0; i < count; ++i) {
    const VarnEntry& row = VarnMessage[i];
    if (row.state == ENTRY_ACTIVE && row.name != nullptr && std::strcmp(row.name, kDisplay) == 0) {
      tool.handle = i;
      tool.started = true;
      return i;
    }
  }
  return Start(tool, kDisplay, args, 1);
}

extern "C" int varn_dds_invoke(void) noexcept { return varn_dds_invoke_with_args(nullptr); }

extern "C" int varn_dftool_invoke(void) noexcept {
  core::OnApplicationThread();
  return InvokeKept(g_dftool, kDftool);
}

extern "C" int varn_instrument_invoke(void) noexcept {
  core::OnApplicationThread();
  return InvokeKept(g_instrument, kInstrument);
}

extern "C" int varn_dataset_invoke(void) noexcept {
  core::OnApplicationThread();
  return DatasetInvoke(nullptr, false);
}

extern "C" int varn_dataset_invoke_with_args(const char* args) noexcept {
  core::OnApplicationThread();
  return DatasetInvoke(args, true);
}

// Read once: later changes of the setting take effect in new processes.
extern "C" int varn_dataset_is_merged(void) noexcept {
  core::OnApplicationThread();
  if (g_merged >= 0) return g_merged;
  int merged = 1;
  // The settings environment in force is put back afterwards.
  char* previous = nullptr;
  if (const char* current = astr_get_environment()) {
    std::size_t size = std::strlen(current) + 1;
    previous = static_cast<char*>(varn::host::gmem_ko_malloc(size));
    if (previous == nullptr) {
      core::Diag("varn_dataset_is_merged: out of memory\n");
      std::abort();
    }
    std::memcpy(previous, current, size);
  }
  astr_set_environment("dravo");
  char value[1024];
  if (astr_environment_string("USE_DATASET_SERVER", value, 1023) && SeparateDatasetServer(value)) {
    merged = 0;
  }
  astr_close_environment();
  if (previous != nullptr) {
    astr_set_environment(previous);
    varn::host::gmem_ko_free(previous);
  }
  g_merged = merged;
  return merged;
}
