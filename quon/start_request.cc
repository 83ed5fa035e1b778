#include "quon/start_request.h"

namespace varn::quon {
namespace {

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == '\n'; }

}  // namespace

bool SplitWords(std::string_view text, std::vector<std::string>* words, std::string* error) {
  words->clear();
  std::string word;
  bool in_word = false;
  std::size_t i = 0;
  while (i < text.size()) {
    char c = text[i];
    if (IsSeparator(c)) {
      if (in_word) words->push_back(word);
      word.clear();
      in_word = false;
      ++i;
    } else if (c == '\'') {
      std::size_t close = text.find('\'', i + 1);
      if (close == std::string_view::npos) {
        *error = "unterminated single quote in arguments";
        return false;
      }
      word.append(text.substr(i + 1, close - i - 1));
      in_word = true;
      i = close + 1;
    } else if (c == '"') {
      in_word = true;
      ++i;
      for (;;) {
        if (i >= text.size()) {
          *error = "unterminated double quote in arguments";
          return false;
        }
        char d = text[i];
        if (d == '"') {
          ++i;
          break;
        }
        if (d == '\\' && i + 1 < text.size()) {
          char e = text[i + 1];
          if (e == '\\' || e == '"' || e == '$' || e == '`') {
            word.push_back(e);
            i += 2;
            continue;
          }
          if (e == '\n') {
            i += 2;
            continue;
          }
        }
        word.push_back(d);
        ++i;
      }
    } else if (c == '\\') {
      if (i + 1 < text.size()) {
        if (text[i + 1] != '\n') {
          word.push_back(text[i + 1]);
          in_word = true;
        }
        i += 2;
      } else {
        word.push_back('\\');
        in_word = true;
        ++i;
      }
    } else {
      word.push_back(c);
      in_word = true;
      ++i;
    }
  }
  if (in_word) words->push_back(word);
  return true;
}

}  // namespace varn::quon
