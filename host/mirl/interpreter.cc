// Runs parsed scripts: frames, variables, calls, and the unwinding of
// script errors.
#include "host/mirl/interpreter.h"

#include <exception>
#include <new>
#include <string>
#include <utility>

#include "host/mirl/ast.h"
#include "host/mirl/builtins.h"
#include "host/mirl/errors.h"
#include "host/mirl/parser.h"
#include "host/mirl/vocabularies.h"

namespace mirl {
namespace {

// Deeper calls are an error, so a script that recurses without end stops
// long before the stack does.
constexpr int kMaxCallDepth = 200;
// Calls and lists being evaluated inside one another, over all running
// functions: deep expressions in every one of 200 nested calls would
// otherwise still exhaust the stack.
constexpr int kMaxNesting = 1000;

// Unwinds script code once a script error is pending (the error itself is
// in the pending error, with its location already added). Caught at the
// top-level statement and where library code called in; it never leaves
// the library.
struct ScriptAbort {};

using Variables = std::map<std::string, MIRLValue*, std::less<>>;

void ReleaseAll(Variables* variables) {
  for (auto& [name, value] : *variables) aval_free_value(value);
  variables->clear();
}

// Script code running: a function, or the top level of a script.
struct Frame {
  std::shared_ptr<Unit> unit;
  const FunctionDef* function = nullptr;  // null at the top level
  Variables locals;                       // unused at the top level
  int line = 0;

  Frame() = default;
  Frame(const Frame&) = delete;
  Frame& operator=(const Frame&) = delete;
  ~Frame() { ReleaseAll(&locals); }
};

struct VocabularyCall {
  const ValueRefs* args;
  Frame* caller;  // the script code that made the call; null for library code
};

struct Runtime {
  std::vector<Frame*> frames;                // innermost last
  std::vector<const VocabularyCall*> calls;  // innermost last
  std::shared_ptr<Unit> current;             // the last run
  int depth = 0;                             // script functions running
  int nesting = 0;                           // calls and lists being evaluated
};

Runtime& State() {
  static Runtime* runtime = new Runtime;  // lives for ever: the last run stays callable
  return *runtime;
}

class FrameScope {
 public:
  explicit FrameScope(Frame* frame) { State().frames.push_back(frame); }
  ~FrameScope() { State().frames.pop_back(); }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;
};

[[noreturn]] void Abort() {
  aerr_add_location();
  throw ScriptAbort{};
}

[[noreturn]] void Raise(int code, const char* word, const std::string& detail) {
  if (detail.empty()) {
    arun_aerr_set("MIRL", code, word, nullptr);
  } else {
    arun_aerr_set("MIRL", code, word, "%s", detail.c_str());
  }
  Abort();
}

// Stores value (taken over) under name, releasing what was there.
void Store(Variables* variables, std::string_view name, MIRLValue* value) {
  ValueRef owned(value);
  auto it = variables->find(name);
  if (it == variables->end()) {
    variables->emplace(std::string(name), owned.get());
    owned.release();
    return;
  }
  MIRLValue* old = it->second;
  it->second = owned.release();
  aval_free_value(old);
}

// Inside a function: an existing local, else an existing global, else a
// new local. At the top level: a global.
void Assign(Frame* frame, std::string_view name, MIRLValue* value) {
  Variables& globals = frame->unit->globals;
  if (frame->function != nullptr && (frame->locals.count(name) != 0 || globals.count(name) == 0)) {
    Store(&frame->locals, name, value);
  } else {
    Store(&globals, name, value);
  }
}

MIRLValue* FindVariable(Frame* frame, std::string_view name) {
  if (frame->function != nullptr) {
    auto it = frame->locals.find(name);
    if (it != frame->locals.end()) return it->second;
  }
  auto it = frame->unit->globals.find(name);
  return it != frame->unit->globals.end() ? it->second : nullptr;
}

// A script function of the unit's program, a builtin, or a vocabulary
// function.
std::optional<Callable> FindNamed(const std::shared_ptr<Unit>& unit, std::string_view name) {
  Callable callable;
  callable.name = std::string(name);
  if (unit != nullptr && unit->program != nullptr) {
    auto it = unit->program->functions.find(name);
    if (it != unit->program->functions.end()) {
      callable.kind = Callable::Kind::kScript;
      callable.program = unit->program;
      callable.def = &it->second;
      callable.unit = unit;
      return callable;
    }
  }
  if (const Builtin* builtin = FindBuiltin(name)) {
    callable.kind = Callable::Kind::kBuiltin;
    callable.builtin = builtin;
    return callable;
  }
  const AutilVocEntry* entry = FindVocabularyEntry(name);
  if (entry != nullptr && entry->kind == AutilFunctionEntry) {
    callable.kind = Callable::Kind::kVocabulary;
    callable.function = reinterpret_cast<AutilFunction>(entry->value);
    return callable;
  }
  return std::nullopt;
}

MIRLValue* Lookup(Frame* frame, const std::string& name) {
  if (MIRLValue* value = FindVariable(frame, name)) return Retain(value);
  const AutilVocEntry* entry = FindVocabularyEntry(name);
  if (entry != nullptr && entry->kind == AutilConstantEntry) {
    return NewInteger(static_cast<int>(entry->value));
  }
  if (std::optional<Callable> callable = FindNamed(frame->unit, name)) {
    return NewFunction(*callable);
  }
  Raise(2, "undefined variable", name);
}

Callable ResolveCall(Frame* frame, const std::string& name) {
  if (std::optional<Callable> callable = FindNamed(frame->unit, name)) return *callable;
  MIRLValue* value = FindVariable(frame, name);
  if (value == nullptr) Raise(3, "unknown function", name);
  if (value->type != AprgFunction) Raise(4, "not a function", name);
  return *value->callable;
}

MIRLValue* Invoke(const Callable& callable, ValueRefs args, Frame* caller);

class NestingScope {
 public:
  explicit NestingScope(const std::string& name) {
    if (State().nesting >= kMaxNesting) Raise(6, "calls nested too deeply", name);
    ++State().nesting;
  }
  ~NestingScope() { --State().nesting; }
  NestingScope(const NestingScope&) = delete;
  NestingScope& operator=(const NestingScope&) = delete;
};

MIRLValue* Eval(Frame* frame, const Expr& expr) {
  frame->line = expr.line;
  switch (expr.kind) {
    case Expr::Kind::kInteger:
      return NewInteger(expr.integer);
    case Expr::Kind::kReal:
      return NewReal(expr.real);
    case Expr::Kind::kText:
      return NewText(expr.text);
    case Expr::Kind::kTrue:
      return AvalTrue;
    case Expr::Kind::kFalse:
      return AvalFalse;
    case Expr::Kind::kNil:
      return Nil();
    case Expr::Kind::kSymbol:
      return NewSymbol(expr.text);
    case Expr::Kind::kVariable:
      return Lookup(frame, expr.text);
    case Expr::Kind::kList: {
      NestingScope nesting(expr.text);
      ValueRef list(NewList());
      list->items.reserve(expr.items.size());
      for (const Expr& item : expr.items) list->items.push_back(Eval(frame, item));
      return list.release();
    }
    case Expr::Kind::kCall:
      break;
  }
  NestingScope nesting(expr.text);
  Callable callee = ResolveCall(frame, expr.text);
  ValueRefs args;
  args.reserve(expr.items.size());
  for (const Expr& item : expr.items) args.emplace_back(Eval(frame, item));
  frame->line = expr.line;
  ValueRef result(Invoke(callee, std::move(args), frame));
  if (AerrFlag != 0) Abort();
  return result != nullptr ? result.release() : Nil();
}

// Runs statements until a return; true when one returned (*result: its
// value, null for none).
bool ExecBlock(Frame* frame, const std::vector<Stmt>& body, MIRLValue** result) {
  for (const Stmt& stmt : body) {
    frame->line = stmt.line;
    switch (stmt.kind) {
      case Stmt::Kind::kAssign:
        Assign(frame, stmt.name, Eval(frame, *stmt.value));
        break;
      case Stmt::Kind::kReturn:
        *result = stmt.value != nullptr ? Eval(frame, *stmt.value) : nullptr;
        return true;
      case Stmt::Kind::kExpr:
        aval_free_value(Eval(frame, *stmt.value));
        break;
    }
  }
  return false;
}

MIRLValue* CallScript(const Callable& callable, ValueRefs args) {
  const FunctionDef& def = *callable.def;
  if (args.size() > def.params.size()) Raise(5, "too many arguments", def.name);
  Runtime& state = State();
  if (state.depth >= kMaxCallDepth) Raise(6, "calls nested too deeply", def.name);
  Frame frame;
  frame.unit = callable.unit.lock();
  if (frame.unit == nullptr) {
    // Its run is over: the function still runs, with no globals.
    frame.unit = std::make_shared<Unit>();
    frame.unit->program = callable.program;
  }
  frame.function = &def;
  frame.line = def.line;
  for (size_t i = 0; i < def.params.size(); ++i) {
    MIRLValue* value = i < args.size() ? args[i].get() : Nil();
    frame.locals.emplace(def.params[i], value);
    if (i < args.size()) args[i].release();
  }
  ++state.depth;
  struct DepthScope {
    ~DepthScope() { --State().depth; }
  } depth_scope;
  FrameScope scope(&frame);
  MIRLValue* result = nullptr;
  ExecBlock(&frame, def.body, &result);
  return result;
}

// A std::exception leaving the function becomes a script error.
MIRLValue* CallVocabulary(AutilFunction function, const ValueRefs& args, Frame* caller) {
  VocabularyCall call{&args, caller};
  Runtime& state = State();
  state.calls.push_back(&call);
  MIRLValue* result = nullptr;
  try {
    result = function();
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
  } catch (const std::exception& e) {
    arun_aerr_set("MIRL", 9, e.what(), nullptr);
  } catch (...) {
    arun_aerr_set("MIRL", 9, "unknown exception", nullptr);
  }
  state.calls.pop_back();
  return result;
}

// The result, owned (null for none). Throws ScriptAbort and std::bad_alloc.
MIRLValue* Invoke(const Callable& callable, ValueRefs args, Frame* caller) {
  switch (callable.kind) {
    case Callable::Kind::kScript:
      return CallScript(callable, std::move(args));
    case Callable::Kind::kBuiltin:
      return callable.builtin->run(args);
    case Callable::Kind::kVocabulary:
      return CallVocabulary(callable.function, args, caller);
  }
  return nullptr;
}

std::shared_ptr<Unit> CurrentUnit() {
  Runtime& state = State();
  if (state.current == nullptr) state.current = std::make_shared<Unit>();
  return state.current;
}

int Run(const std::shared_ptr<Program>& program, const RunOptions& options) {
  auto unit = std::make_shared<Unit>();
  unit->program = program;
  State().current = unit;
  Frame top;
  top.unit = unit;
  FrameScope scope(&top);
  int status = 0;
  for (const Stmt& stmt : program->statements) {
    try {
      top.line = stmt.line;
      if (stmt.kind == Stmt::Kind::kAssign) {
        Assign(&top, stmt.name, Eval(&top, *stmt.value));
      } else {
        aval_free_value(Eval(&top, *stmt.value));
      }
    } catch (const ScriptAbort&) {
    } catch (const std::bad_alloc&) {
      aerr_memory_error();
    }
    if (AerrFlag != 0) {
      aerr_add_location();
      aerr_report();
      status = 1;
      if (!options.keep_going) break;
    }
  }
  return status;
}

}  // namespace

Unit::~Unit() { ReleaseAll(&globals); }

bool CurrentLocation(Location* where) {
  const Runtime& state = State();
  if (state.frames.empty()) return false;
  const Frame& frame = *state.frames.back();
  where->file = frame.unit->program != nullptr ? frame.unit->program->file : "";
  where->line = frame.line;
  where->function = frame.function != nullptr ? frame.function->name : "";
  return true;
}

const ValueRefs* CurrentArguments() {
  const Runtime& state = State();
  return state.calls.empty() ? nullptr : state.calls.back()->args;
}

void SetCallerVariable(const std::string& name, MIRLValue* value) {
  Runtime& state = State();
  Frame* caller = !state.calls.empty()    ? state.calls.back()->caller
                  : !state.frames.empty() ? state.frames.back()
                                          : nullptr;
  if (caller != nullptr) {
    Assign(caller, name, Retain(value));
  } else {
    Store(&CurrentUnit()->globals, name, Retain(value));
  }
}

std::optional<Callable> FindFunction(std::string_view name) {
  return FindNamed(State().current, name);
}

bool CallFromLibrary(const Callable& callable, const std::vector<MIRLValue*>& args,
                     MIRLValue** result) {
  if (result != nullptr) *result = nullptr;
  if (AerrFlag != 0) return false;
  try {
    Callable callee = callable;  // keeps the function alive while it runs
    ValueRefs owned;
    owned.reserve(args.size());
    for (MIRLValue* arg : args) owned.emplace_back(Retain(arg != nullptr ? arg : Nil()));
    Runtime& state = State();
    Frame* caller = state.frames.empty() ? nullptr : state.frames.back();
    ValueRef value(Invoke(callee, std::move(owned), caller));
    if (AerrFlag != 0) return false;
    if (result != nullptr) *result = value.release();
    return true;
  } catch (const ScriptAbort&) {
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
  } catch (...) {
    arun_aerr_set("MIRL", 9, "unknown exception", nullptr);
  }
  return false;
}

int RunScriptText(const std::string& text, const char* name, const RunOptions& options) {
  std::string file = name != nullptr ? name : "<script>";
  try {
    if (!State().frames.empty()) {
      WriteLine(ReportStream(), file + ": cannot run a script while another one runs");
      return 2;
    }
    // The last run's globals go now; its functions live on in the values
    // that refer to them.
    State().current.reset();
    // An error that library code left pending does not belong to this script.
    aerr_report();
    SyntaxError error;
    std::shared_ptr<Program> program = Parse(text, file, &error);
    if (program == nullptr) {
      WriteLine(ReportStream(), file + ":" + std::to_string(error.line) + ": " + error.reason);
      return 2;
    }
    return Run(program, options);
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    aerr_report();
    return 1;
  }
}

int RunScriptFile(const char* path, const RunOptions& options) {
  std::string file = path != nullptr ? path : "";
  try {
    struct Closer {
      void operator()(std::FILE* stream) const { std::fclose(stream); }
    };
    std::unique_ptr<std::FILE, Closer> stream(path != nullptr ? std::fopen(path, "rb") : nullptr);
    std::string text;
    bool ok = stream != nullptr;
    if (ok) {
      char buffer[8192];
      size_t n;
      while ((n = std::fread(buffer, 1, sizeof buffer, stream.get())) > 0) text.append(buffer, n);
      ok = std::ferror(stream.get()) == 0;
    }
    if (!ok) {
      WriteLine(ReportStream(), file + ": cannot read the script");
      return 2;
    }
    return RunScriptText(text, path, options);
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    aerr_report();
    return 1;
  }
}

}  // namespace mirl
