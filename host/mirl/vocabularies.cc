// Registration of vocabularies and lookup of their names.
#include "host/mirl/vocabularies.h"

#include <map>
#include <new>
#include <set>
#include <string>
#include <vector>

#include "host/mirl/builtins.h"

namespace {

struct Registry {
  std::set<const AutilVocabulary*> vocabularies;
  std::map<std::string, const AutilVocEntry*, std::less<>> names;
};

Registry& GetRegistry() {
  static Registry* registry = new Registry;  // lives for ever: used until the last script call
  return *registry;
}

// Whether every entry is well formed and no name is taken, by a builtin,
// another vocabulary, or an earlier entry of the same one.
bool Acceptable(const Registry& registry, const AutilVocabulary& vocabulary) {
  if (vocabulary.count < 0 || (vocabulary.count > 0 && vocabulary.table == nullptr)) return false;
  std::set<std::string_view> own;
  for (intptr_t i = 0; i < vocabulary.count; ++i) {
    const AutilVocEntry& entry = vocabulary.table[i];
    if (entry.name == nullptr || entry.name[0] == '\0') return false;
    if (entry.kind != AutilFunctionEntry && entry.kind != AutilConstantEntry) return false;
    if (entry.kind == AutilFunctionEntry && entry.value == 0) return false;
    std::string_view name(entry.name);
    if (mirl::FindBuiltin(name) != nullptr || registry.names.count(name) != 0) return false;
    if (!own.insert(name).second) return false;
  }
  return true;
}

}  // namespace

namespace mirl {

const AutilVocEntry* FindVocabularyEntry(std::string_view name) {
  const Registry& registry = GetRegistry();
  auto it = registry.names.find(name);
  return it != registry.names.end() ? it->second : nullptr;
}

}  // namespace mirl

extern "C" int autil_initialize(int, int, int, int count, const AutilVocabulary* vocabularies) {
  if (count < 0 || (count > 0 && vocabularies == nullptr)) return 0;
  Registry& registry = GetRegistry();
  int ok = 1;
  try {
    for (int v = 0; v < count; ++v) {
      const AutilVocabulary* vocabulary = &vocabularies[v];
      if (registry.vocabularies.count(vocabulary) != 0) continue;
      if (!Acceptable(registry, *vocabulary)) {
        ok = 0;
        continue;
      }
      std::map<std::string, const AutilVocEntry*, std::less<>> names = registry.names;
      for (intptr_t i = 0; i < vocabulary->count; ++i) {
        names.emplace(vocabulary->table[i].name, &vocabulary->table[i]);
      }
      registry.vocabularies.insert(vocabulary);
      registry.names.swap(names);
    }
  } catch (const std::bad_alloc&) {
    aerr_memory_error();
    return 0;
  }
  return ok;
}
