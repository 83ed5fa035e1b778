#include "quon/file_service.h"

#include <cerrno>
#include <charconv>
#include <vector>

#include "platform/spawn.h"
#include "quon/packet_framer.h"
#include "transport/wire_format.h"

namespace varn::quon {
namespace {

FileReply Ack(std::string payload = {}) { return {wire::kFack, std::move(payload)}; }
FileReply Nak(std::string reason) { return {wire::kFnak, std::move(reason)}; }

// EXDEV is what the confined lookup reports for every way out of the root.
FileReply NakErrno(int error) {
  if (error == EXDEV) return Nak("outside the files root");
  return Nak(platform::ErrorText(error));
}

bool ParseNumber(std::string_view text, long long* value) {
  if (text.empty()) return false;
  const char* end = text.data() + text.size();
  auto r = std::from_chars(text.data(), end, *value);
  return r.ec == std::errc() && r.ptr == end;
}

// Splits on single blanks into exactly `count` fields.
bool Fields(std::string_view text, std::size_t count, std::vector<std::string_view>* out) {
  out->clear();
  while (out->size() + 1 < count) {
    std::size_t blank = text.find(' ');
    if (blank == std::string_view::npos) return false;
    out->push_back(text.substr(0, blank));
    text.remove_prefix(blank + 1);
  }
  out->push_back(text);
  return true;
}

}  // namespace

FileReply FileTable::Handle(int category, std::string_view payload) {
  std::string_view text = WithoutPadding(payload);
  switch (category) {
    case wire::kFopen:
      return Open(text);
    case wire::kFread:
      return Read(text);
    case wire::kFwrite:
      return Write(payload);
    case wire::kFseek:
      return Seek(text);
    case wire::kFclose:
    case wire::kFrewind:
    case wire::kFtell:
    case wire::kFeof:
      return OnFile(category, text);
    case wire::kFstat:
    case wire::kFunlink:
      return OnPath(category, text);
    default:
      return Nak("not a file request");
  }
}

FileReply FileTable::Open(std::string_view text) {
  // "NAME MODE TYPE"; the name itself may contain blanks.
  std::size_t b2 = text.rfind(' ');
  if (b2 == std::string_view::npos || b2 == 0) return Nak("bad request");
  std::size_t b1 = text.rfind(' ', b2 - 1);
  if (b1 == std::string_view::npos || b1 == 0) return Nak("bad request");
  std::string name(text.substr(0, b1));
  std::string_view mode_word = text.substr(b1 + 1, b2 - b1 - 1);
  std::string_view type_word = text.substr(b2 + 1);
  if (type_word != "TEXT" && type_word != "BINARY") return Nak("bad file type");
  platform::FileMode mode;
  if (mode_word == "READ") {
    mode = platform::FileMode::kRead;
  } else if (mode_word == "WRITE") {
    mode = platform::FileMode::kWrite;
  } else if (mode_word == "APPEND") {
    mode = platform::FileMode::kAppend;
  } else {
    return Nak("bad file mode");
  }
  if (files_.size() >= kMaxOpenFiles) return Nak("too many open files");
  int error = 0;
  auto file = root_.OpenFile(name, mode, &error);
  // ENXIO: a FIFO, socket or device, which the hub does not serve.
  if (!file) return error == ENXIO ? Nak("not a regular file") : NakErrno(error);
  long number = next_number_++;
  files_[number] = std::move(file);
  return Ack(std::to_string(number));
}

FileReply FileTable::Read(std::string_view text) {
  std::vector<std::string_view> f;
  long long number, count;
  if (!Fields(text, 2, &f) || !ParseNumber(f[0], &number) || !ParseNumber(f[1], &count)) {
    return Nak("bad request");
  }
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  if (count <= 0) return Nak("bad count");
  std::size_t want = static_cast<std::size_t>(count);
  if (want > kMaxRead) want = kMaxRead;
  std::string data(want, '\0');
  int error = 0;
  long n = it->second->Read(data.data(), want, &error);
  if (n < 0) return NakErrno(error);
  if (n == 0) return Nak("0");
  data.resize(static_cast<std::size_t>(n));
  return Ack(std::move(data));
}

FileReply FileTable::Write(std::string_view payload) {
  // "NUMBER COUNT " and then COUNT raw bytes, which may contain NULs.
  std::size_t b1 = payload.find(' ');
  if (b1 == std::string_view::npos) return Nak("bad request");
  std::size_t b2 = payload.find(' ', b1 + 1);
  if (b2 == std::string_view::npos) return Nak("bad request");
  long long number, count;
  if (!ParseNumber(payload.substr(0, b1), &number) ||
      !ParseNumber(payload.substr(b1 + 1, b2 - b1 - 1), &count) || count < 0 ||
      static_cast<std::size_t>(count) > payload.size() - b2 - 1) {
    return Nak("bad request");
  }
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  int error = 0;
  if (!it->second->Write(payload.data() + b2 + 1, static_cast<std::size_t>(count), &error)) {
    return NakErrno(error);
  }
  return Ack(std::to_string(count));
}

FileReply FileTable::Seek(std::string_view text) {
  std::vector<std::string_view> f;
  long long number, offset, whence;
  if (!Fields(text, 3, &f) || !ParseNumber(f[0], &number) || !ParseNumber(f[1], &offset) ||
      !ParseNumber(f[2], &whence)) {
    return Nak("bad request");
  }
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  if (whence < 0 || whence > 2) whence = 0;
  int error = 0;
  if (!it->second->Seek(offset, static_cast<int>(whence), &error)) return NakErrno(error);
  std::int64_t pos = it->second->Tell(&error);
  if (pos < 0) return NakErrno(error);
  return Ack(std::to_string(pos));
}

FileReply FileTable::OnFile(int category, std::string_view text) {
  long long number;
  if (!ParseNumber(text, &number)) return Nak("bad request");
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  platform::File& file = *it->second;
  switch (category) {
    case wire::kFclose:
      files_.erase(it);
      return Ack();
    case wire::kFrewind:
      file.Rewind();
      return Ack();
    case wire::kFeof:
      return Ack(file.AtEnd() ? "1" : "0");
    default: {  // FTELL
      int error = 0;
      std::int64_t pos = file.Tell(&error);
      if (pos < 0) return NakErrno(error);
      return Ack(std::to_string(pos));
    }
  }
}

FileReply FileTable::OnPath(int category, std::string_view text) {
  std::string path(text);
  int error = 0;
  if (category == wire::kFunlink) {
    if (!root_.Remove(path, &error)) return NakErrno(error);
    return Ack();
  }
  int kind = 0;
  if (!root_.KindOf(path, &kind, &error)) return NakErrno(error);
  return Ack(std::to_string(kind));
}

}  // namespace varn::quon
