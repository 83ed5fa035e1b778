// The vocabulary's system(): runs a command line as a program that does not
// speak the protocol, without a shell of its own, and can collect what it
// prints.
#include <stdexcept>
#include <string>

#include "script/handlers.h"
#include "script/mirl_args.h"
#include "script/system_command.h"
#include "script/vocabulary.h"
#include "varn.h"

namespace varn::script {

SplitCommand SplitCommandLine(const std::string& command) {
  SplitCommand split;
  bool started = false;
  bool quoted = false;
  for (std::size_t i = 0; i < command.size(); ++i) {
    char c = command[i];
    bool blank = c == ' ' || c == '\t' || c == '\r';
    if (!started) {
      if (blank) continue;
      started = true;
    }
    if (c == '"') {
      quoted = !quoted;
      continue;
    }
    if (blank && !quoted) {
      split.arguments = command.substr(i + 1);
      break;
    }
    split.program.push_back(c);
  }
  return split;
}

bool HasRedirection(const std::string& command) {
  return command.find_first_of("<>|") != std::string::npos;
}

namespace {

using core::OnApplicationThread;

std::string OwnedText(const mirl::Parm& parm) {
  const char* text = aval_value_data(parm.value());
  if (text == nullptr) throw std::runtime_error("Value is null.");
  return text;
}

// Everything the program prints, a line for each DATA, until it ends.
MIRLValue* CollectOutput(int handle) REQUIRES(core::kLibrary) {
  std::string output;
  // The whole line is taken, however long: the buffer holds any message.
  std::unique_ptr<char[]> buffer = PacketBuffer();
  for (;;) {
    uint32_t category = 0, length = 0;
    if (!varn_wait(handle, &category, buffer.get(), &length, VARN_SRVR_ERR, 0)) break;
    if (category == VARN_SRVR_ERR) break;
    if (category == VARN_DATA && length > 0) {
      output.append(buffer.get());
      output.push_back('\n');
    }
  }
  return aval_create_string(output.c_str());
}

}  // namespace

namespace mirl_functions {

MIRLValue* system() {
  OnApplicationThread();
  std::string command, directory;
  {
    mirl::Parm command_parm = mirl::get_string_parm(0);
    mirl::Parm directory_parm = mirl::get_optional_string_parm(2, "");
    command = OwnedText(command_parm);
    directory = OwnedText(directory_parm);
  }
  int variant = 0, collect = 0;
  if (arun_peek_parm(1) != AvalNone && !arun_get_int_parm(1, &variant)) variant = 0;
  if (arun_peek_parm(3) != AvalNone && !arun_get_int_parm(3, &collect)) return nullptr;
  if (HasRedirection(command)) {
    arun_aerr_set("MIRL", 69, "cannot redirect or use pipes in system()", "%s", command.c_str());
    return nullptr;
  }
  SplitCommand split = SplitCommandLine(command);
  uint32_t kind = variant != 0 ? VARN_NONVELOR_INVOKERE : VARN_NONVELOR_INVOKER;
  char error_text[VARN_STATUS_TEXT_SIZE] = "";
  int handle = -1;
  int ok = varn_invoke_nonvelor_program(&handle, split.program.c_str(), "", split.arguments.c_str(),
                                        0, error_text, kind, directory.c_str());
  if (!ok) {
    // Not a program of its own (a command of the shell, say): the shell
    // runs the whole line.
    std::string shell_arguments = " -system " + command;
    ok = varn_invoke_nonvelor_program(&handle, "korbshell", "", shell_arguments.c_str(), 0,
                                      error_text, kind, directory.c_str());
  }
  if (!ok) {
    arun_aerr_set("MIRL", 68, "could not invoke program", "%s %s", command.c_str(), error_text);
    return nullptr;
  }
  return collect != 0 ? CollectOutput(handle) : aval_create_raw_integer(handle);
}

}  // namespace mirl_functions
}  // namespace varn::script
