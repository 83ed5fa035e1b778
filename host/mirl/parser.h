// Reads the text of a script into its parsed form.
#ifndef VARN_HOST_MIRL_PARSER_H_
#define VARN_HOST_MIRL_PARSER_H_

#include <memory>
#include <string>
#include <string_view>

#include "host/mirl/ast.h"

namespace mirl {

struct SyntaxError {
  int line = 0;
  std::string reason;
};

// The program, or null and the first syntax error. Throws std::bad_alloc.
std::shared_ptr<Program> Parse(std::string_view text, const std::string& file, SyntaxError* error);

}  // namespace mirl

#endif  // VARN_HOST_MIRL_PARSER_H_
