// Lexer and recursive-descent parser of the script language.
#include "host/mirl/parser.h"

#include <charconv>
#include <climits>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

namespace mirl {
namespace {

// Bounds the parser's (and later the evaluator's) recursion over nested
// lists and calls.
constexpr int kMaxNesting = 100;

struct Failure {
  int line;
  std::string reason;
};

struct Token {
  enum class Kind {
    kName,
    kInteger,
    kReal,
    kText,
    kNewline,
    kSemicolon,
    kComma,
    kOpenParen,
    kCloseParen,
    kOpenBrace,
    kCloseBrace,
    kOpenBracket,
    kCloseBracket,
    kAssign,
    kAmpersand,
    kEnd,
  };
  Kind kind = Kind::kEnd;
  int line = 0;
  std::string text;  // kName, kText, and the spelling of a number
  int integer = 0;
  double real = 0;
};
using Kind = Token::Kind;

bool IsNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsNameChar(char c) { return IsNameStart(c) || IsDigit(c); }

bool IsKeyword(std::string_view name) {
  return name == "function" || name == "return" || name == "true" || name == "false" ||
         name == "nil";
}

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  std::vector<Token> Run() {
    std::vector<Token> tokens;
    while (pos_ < text_.size()) {
      char c = text_[pos_];
      if (c == ' ' || c == '\t' || c == '\r') {
        ++pos_;
      } else if (c == '#') {
        while (pos_ < text_.size() && text_[pos_] != '\n') ++pos_;
      } else if (c == '\n') {
        tokens.push_back(Simple(Kind::kNewline));
        ++line_;
      } else if (IsDigit(c) || (c == '-' && pos_ + 1 < text_.size() && IsDigit(text_[pos_ + 1]))) {
        tokens.push_back(Number());
      } else if (IsNameStart(c)) {
        Token token = Make(Kind::kName);
        size_t start = pos_;
        while (pos_ < text_.size() && IsNameChar(text_[pos_])) ++pos_;
        token.text = text_.substr(start, pos_ - start);
        tokens.push_back(std::move(token));
      } else if (c == '"') {
        tokens.push_back(Text());
      } else {
        tokens.push_back(Punctuation(c));
      }
    }
    tokens.push_back(Make(Kind::kEnd));
    return tokens;
  }

 private:
  Token Make(Kind kind) const {
    Token token;
    token.kind = kind;
    token.line = line_;
    return token;
  }

  Token Simple(Kind kind) {
    ++pos_;
    return Make(kind);
  }

  Token Punctuation(char c) {
    switch (c) {
      case ';':
        return Simple(Kind::kSemicolon);
      case ',':
        return Simple(Kind::kComma);
      case '(':
        return Simple(Kind::kOpenParen);
      case ')':
        return Simple(Kind::kCloseParen);
      case '{':
        return Simple(Kind::kOpenBrace);
      case '}':
        return Simple(Kind::kCloseBrace);
      case '[':
        return Simple(Kind::kOpenBracket);
      case ']':
        return Simple(Kind::kCloseBracket);
      case '=':
        return Simple(Kind::kAssign);
      case '&':
        return Simple(Kind::kAmpersand);
      default:
        break;
    }
    unsigned char byte = static_cast<unsigned char>(c);
    if (byte >= 0x21 && byte < 0x7f) throw Failure{line_, std::string("unexpected '") + c + "'"};
    throw Failure{line_, "unexpected character " + std::to_string(byte)};
  }

  // digits [. digits] [e [sign] digits], with an optional leading '-'.
  Token Number() {
    Token token = Make(Kind::kInteger);
    size_t start = pos_;
    if (text_[pos_] == '-') ++pos_;
    SkipDigits();
    if (pos_ < text_.size() && text_[pos_] == '.') {
      token.kind = Kind::kReal;
      ++pos_;
      SkipDigits();
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      token.kind = Kind::kReal;
      ++pos_;
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
      if (pos_ >= text_.size() || !IsDigit(text_[pos_])) throw Failure{line_, "bad number"};
      SkipDigits();
    }
    if (pos_ < text_.size() && (IsNameChar(text_[pos_]) || text_[pos_] == '.'))
      throw Failure{line_, "bad number"};
    token.text = text_.substr(start, pos_ - start);
    const char* first = token.text.data();
    const char* last = first + token.text.size();
    std::errc ec = token.kind == Kind::kInteger ? std::from_chars(first, last, token.integer).ec
                                                : std::from_chars(first, last, token.real).ec;
    if (ec == std::errc::result_out_of_range) throw Failure{line_, "number out of range"};
    if (ec != std::errc()) throw Failure{line_, "bad number"};
    return token;
  }

  void SkipDigits() {
    while (pos_ < text_.size() && IsDigit(text_[pos_])) ++pos_;
  }

  Token Text() {
    Token token = Make(Kind::kText);
    ++pos_;
    for (;;) {
      if (pos_ >= text_.size() || text_[pos_] == '\n') throw Failure{line_, "unterminated string"};
      char c = text_[pos_++];
      if (c == '"') break;
      if (c != '\\') {
        token.text.push_back(c);
        continue;
      }
      char escaped = pos_ < text_.size() ? text_[pos_++] : '\0';
      switch (escaped) {
        case '"':
        case '\\':
          token.text.push_back(escaped);
          break;
        case 'n':
          token.text.push_back('\n');
          break;
        case 't':
          token.text.push_back('\t');
          break;
        case 'r':
          token.text.push_back('\r');
          break;
        default:
          throw Failure{line_, "unknown escape in string"};
      }
    }
    return token;
  }

  std::string_view text_;
  size_t pos_ = 0;
  int line_ = 1;
};

std::string Describe(const Token& token) {
  switch (token.kind) {
    case Kind::kName:
    case Kind::kInteger:
    case Kind::kReal:
      return "'" + token.text + "'";
    case Kind::kText:
      return "a string";
    case Kind::kNewline:
      return "the end of the line";
    case Kind::kEnd:
      return "the end of the script";
    case Kind::kSemicolon:
      return "';'";
    case Kind::kComma:
      return "','";
    case Kind::kOpenParen:
      return "'('";
    case Kind::kCloseParen:
      return "')'";
    case Kind::kOpenBrace:
      return "'{'";
    case Kind::kCloseBrace:
      return "'}'";
    case Kind::kOpenBracket:
      return "'['";
    case Kind::kCloseBracket:
      return "']'";
    case Kind::kAssign:
      return "'='";
    case Kind::kAmpersand:
      return "'&'";
  }
  return "?";
}

class Parser {
 public:
  Parser(std::vector<Token> tokens, Program* program)
      : tokens_(std::move(tokens)), program_(program) {}

  void Run() {
    for (;;) {
      SkipSeparators();
      if (At(Kind::kEnd)) return;
      if (AtName("function")) {
        Function();
      } else {
        program_->statements.push_back(Statement(false));
      }
    }
  }

 private:
  const Token& Peek(size_t ahead = 0) const {
    size_t i = std::min(pos_ + ahead, tokens_.size() - 1);
    return tokens_[i];
  }
  bool At(Kind kind) const { return Peek().kind == kind; }
  bool AtName(std::string_view name) const { return At(Kind::kName) && Peek().text == name; }
  const Token& Next() {
    const Token& token = Peek();
    if (pos_ < tokens_.size() - 1) ++pos_;
    return token;
  }

  [[noreturn]] void Fail(const std::string& reason) const { throw Failure{Peek().line, reason}; }

  void Expect(Kind kind, const char* what) {
    if (!At(kind)) Fail(std::string("expected ") + what + ", found " + Describe(Peek()));
    Next();
  }

  std::string Name(const char* what) {
    if (!At(Kind::kName)) Fail(std::string("expected ") + what + ", found " + Describe(Peek()));
    if (IsKeyword(Peek().text)) Fail("'" + Peek().text + "' cannot be used as " + what);
    return Next().text;
  }

  void SkipNewlines() {
    while (At(Kind::kNewline)) Next();
  }
  void SkipSeparators() {
    while (At(Kind::kNewline) || At(Kind::kSemicolon)) Next();
  }

  void Function() {
    int line = Next().line;
    FunctionDef def;
    def.line = line;
    def.name = Name("a function name");
    if (program_->functions.count(def.name) != 0)
      Fail("function '" + def.name + "' is defined twice");
    Expect(Kind::kOpenParen, "'('");
    SkipNewlines();
    std::set<std::string> seen;
    if (!At(Kind::kCloseParen)) {
      for (;;) {
        std::string param = Name("a parameter name");
        if (!seen.insert(param).second) Fail("parameter '" + param + "' is named twice");
        def.params.push_back(std::move(param));
        SkipNewlines();
        if (At(Kind::kCloseParen)) break;
        Expect(Kind::kComma, "',' or ')'");
        SkipNewlines();
      }
    }
    Next();
    SkipNewlines();
    Expect(Kind::kOpenBrace, "'{'");
    for (;;) {
      SkipSeparators();
      if (At(Kind::kCloseBrace)) break;
      if (At(Kind::kEnd)) Fail("missing '}' of function '" + def.name + "'");
      def.body.push_back(Statement(true));
    }
    Next();
    std::string name = def.name;
    program_->functions.emplace(std::move(name), std::move(def));
  }

  Stmt Statement(bool in_function) {
    Stmt stmt;
    stmt.line = Peek().line;
    if (AtName("function")) Fail("functions can be defined only at the top level");
    if (AtName("return")) {
      if (!in_function) Fail("'return' outside a function");
      Next();
      stmt.kind = Stmt::Kind::kReturn;
      if (!AtStatementEnd()) stmt.value = std::make_unique<Expr>(Expression(0));
    } else if (At(Kind::kName) && Peek(1).kind == Kind::kAssign) {
      stmt.kind = Stmt::Kind::kAssign;
      stmt.name = Name("a variable name");
      Next();
      stmt.value = std::make_unique<Expr>(Expression(0));
    } else {
      stmt.kind = Stmt::Kind::kExpr;
      stmt.value = std::make_unique<Expr>(Expression(0));
    }
    if (!AtStatementEnd()) Fail("expected the end of the statement, found " + Describe(Peek()));
    return stmt;
  }

  // A statement ends at a line feed, ';', the end of the script, or the
  // '}' closing its function (left for the function to take).
  bool AtStatementEnd() const {
    return At(Kind::kNewline) || At(Kind::kSemicolon) || At(Kind::kEnd) || At(Kind::kCloseBrace);
  }

  Expr Expression(int depth) {
    if (depth > kMaxNesting) Fail("expression nested too deeply");
    Expr expr;
    expr.line = Peek().line;
    const Token& token = Peek();
    switch (token.kind) {
      case Kind::kInteger:
        expr.kind = Expr::Kind::kInteger;
        expr.integer = Next().integer;
        return expr;
      case Kind::kReal:
        expr.kind = Expr::Kind::kReal;
        expr.real = Next().real;
        return expr;
      case Kind::kText:
        expr.kind = Expr::Kind::kText;
        expr.text = Next().text;
        return expr;
      case Kind::kOpenBracket:
        Next();
        expr.kind = Expr::Kind::kList;
        Items(Kind::kCloseBracket, "']'", depth, &expr.items);
        return expr;
      case Kind::kAmpersand:
        Next();
        expr.kind = Expr::Kind::kSymbol;
        expr.text = Name("a variable name after '&'");
        return expr;
      case Kind::kName:
        break;
      default:
        Fail("expected an expression, found " + Describe(token));
    }
    if (token.text == "true" || token.text == "false" || token.text == "nil") {
      expr.kind = token.text == "true"    ? Expr::Kind::kTrue
                  : token.text == "false" ? Expr::Kind::kFalse
                                          : Expr::Kind::kNil;
      Next();
      return expr;
    }
    expr.text = Name("a name");
    expr.kind = Expr::Kind::kVariable;
    if (At(Kind::kOpenParen)) {
      Next();
      expr.kind = Expr::Kind::kCall;
      Items(Kind::kCloseParen, "')'", depth, &expr.items);
    }
    return expr;
  }

  // Comma-separated expressions up to the closing token; line feeds are
  // allowed between them.
  void Items(Kind close, const char* close_text, int depth, std::vector<Expr>* items) {
    SkipNewlines();
    if (At(close)) {
      Next();
      return;
    }
    for (;;) {
      items->push_back(Expression(depth + 1));
      SkipNewlines();
      if (At(close)) break;
      Expect(Kind::kComma, (std::string("',' or ") + close_text).c_str());
      SkipNewlines();
    }
    Next();
  }

  std::vector<Token> tokens_;
  size_t pos_ = 0;
  Program* program_;
};

}  // namespace

std::shared_ptr<Program> Parse(std::string_view text, const std::string& file, SyntaxError* error) {
  auto program = std::make_shared<Program>();
  program->file = file;
  try {
    Parser parser(Lexer(text).Run(), program.get());
    parser.Run();
  } catch (const Failure& failure) {
    if (error != nullptr) *error = SyntaxError{failure.line, failure.reason};
    return nullptr;
  }
  return program;
}

}  // namespace mirl
