// The parsed form of a script. A parsed script is never changed; it holds
// no values, only what makes them when the script runs.
#ifndef VARN_HOST_MIRL_AST_H_
#define VARN_HOST_MIRL_AST_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace mirl {

struct Expr {
  enum class Kind { kInteger, kReal, kText, kTrue, kFalse, kNil, kList, kSymbol, kVariable, kCall };
  Kind kind = Kind::kNil;
  int line = 0;
  int integer = 0;
  double real = 0;
  std::string text;         // kText; the name of kSymbol, kVariable and kCall
  std::vector<Expr> items;  // kList items; kCall arguments
};

struct Stmt {
  enum class Kind { kAssign, kReturn, kExpr };
  Kind kind = Kind::kExpr;
  int line = 0;
  std::string name;             // kAssign
  std::unique_ptr<Expr> value;  // null for a bare return
};

struct FunctionDef {
  std::string name;
  int line = 0;
  std::vector<std::string> params;
  std::vector<Stmt> body;
};

struct Program {
  std::string file;
  std::map<std::string, FunctionDef, std::less<>> functions;
  std::vector<Stmt> statements;  // the top level, in order
};

}  // namespace mirl

#endif  // VARN_HOST_MIRL_AST_H_
