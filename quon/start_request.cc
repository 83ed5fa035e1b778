#include "quon/start_request.h"

namespace varn::quon {
namespace {

// Takes one field: a double-quoted text, or everything up to the next blank.
bool TakeField(std::string_view* rest, std::string* field) {
  std::string_view r = *rest;
  if (!r.empty() && r[0] == '"') {
    std::size_t close = r.find('"', 1);
    if (close == std::string_view::npos) return false;
    *field = std::string(r.substr(1, close - 1));
    *rest = r.substr(close + 1);
    return true;
  }
  std::size_t blank = r.find(' ');
  *field = std::string(r.substr(0, blank));
  *rest = blank == std::string_view::npos ? std::string_view() : r.substr(blank);
  return true;
}

bool IsSeparator(char c) { return c == ' ' || c == '\t' || c == '\n'; }

}  // namespace

bool ParseStartRequest(std::string_view payload, StartRequest* request, std::string* error) {
  std::string_view rest = payload;
  if (!TakeField(&rest, &request->directory) || request->directory.empty()) {
    *error = "bad start request: no working directory";
    return false;
  }
  if (rest.empty() || rest[0] != ' ') {
    *error = "bad start request: no program";
    return false;
  }
  rest.remove_prefix(1);
  if (!TakeField(&rest, &request->command) || request->command.empty()) {
    *error = "bad start request: no program";
    return false;
  }
  if (!rest.empty()) {
    if (rest[0] != ' ') {
      *error = "bad start request: text after the quoted program";
      return false;
    }
    rest.remove_prefix(1);
  }
  request->arguments = std::string(rest);
  // host:name, unless what precedes the colon looks like part of a path.
  std::size_t colon = request->command.find(':');
  if (colon != std::string::npos && colon > 0 &&
      request->command.substr(0, colon).find('/') == std::string::npos) {
    request->host = request->command.substr(0, colon);
    request->program = request->command.substr(colon + 1);
  } else {
    request->host.clear();
    request->program = request->command;
  }
  if (request->program.empty()) {
    *error = "bad start request: no program";
    return false;
  }
  return true;
}

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
