// The names of the registered vocabularies.
#ifndef VARN_HOST_MIRL_VOCABULARIES_H_
#define VARN_HOST_MIRL_VOCABULARIES_H_

#include <string_view>

#include "host/mirl/mirl.h"

namespace mirl {

// The entry of that name (a function or a constant); null when none has it.
const AutilVocEntry* FindVocabularyEntry(std::string_view name);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_VOCABULARIES_H_
