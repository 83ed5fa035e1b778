#include "quon/file_service.h"

#include <cerrno>

#include "platform/spawn.h"
#include "transport/wire_format.h"
#include "transport/wire_requests.h"

namespace varn::quon {
namespace {

FileReply Ack(std::string payload = {}) { return {VARN_FACK, std::move(payload)}; }
FileReply Nak(std::string reason) { return {VARN_FNAK, std::move(reason)}; }

// EXDEV is what the confined lookup reports for every way out of the root.
FileReply NakErrno(int error) {
  if (error == EXDEV) return Nak("outside the files root");
  return Nak(platform::ErrorText(error));
}

}  // namespace

FileReply OpenFiles::Handle(int category, std::string_view payload) {
  std::string_view text = wire::WithoutPadding(payload);
  switch (category) {
    case VARN_FOPEN:
      return Open(text);
    case VARN_FREAD:
      return Read(text);
    case VARN_FWRITE:
      return Write(payload);
    case VARN_FSEEK:
      return Seek(text);
    case VARN_FCLOSE:
    case VARN_FREWIND:
    case VARN_FTELL:
    case VARN_FEOF:
      return OnFile(category, text);
    case VARN_FSTAT:
    case VARN_FUNLINK:
      return OnPath(category, text);
    default:
      return Nak("not a file request");
  }
}

FileReply OpenFiles::Open(std::string_view text) {
  std::string_view name_text, mode_word, type_word;
  if (!wire::ParseOpenRequest(text, &name_text, &mode_word, &type_word)) return Nak("bad request");
  int mode_code = 0, type_code = 0;
  // TEXT and BINARY are served alike: the bytes are the file's.
  if (!wire::FileTypeFromWord(type_word, &type_code)) return Nak("bad file type");
  if (!wire::FileModeFromWord(mode_word, &mode_code)) return Nak("bad file mode");
  std::string name(name_text);
  platform::FileMode mode = mode_code == 1   ? platform::FileMode::kRead
                            : mode_code == 2 ? platform::FileMode::kWrite
                                             : platform::FileMode::kAppend;
  if (files_.size() >= kMaxOpenFiles) return Nak("too many open files");
  int error = 0;
  auto file = root_.OpenFile(name, mode, &error);
  // ENXIO: a FIFO, socket or device, which the hub does not serve.
  if (!file) return error == ENXIO ? Nak("not a regular file") : NakErrno(error);
  long number = next_number_++;
  files_[number] = std::move(file);
  return Ack(std::to_string(number));
}

FileReply OpenFiles::Read(std::string_view text) {
  long long number, count;
  if (!wire::ParseReadRequest(text, &number, &count)) return Nak("bad request");
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  if (count <= 0) return Nak("bad count");
  std::size_t want = static_cast<std::size_t>(count);
  if (want > kMaxRead) want = kMaxRead;
  std::string data(want, '\0');
  int error = 0;
  long n = it->second->Read(data.data(), want, &error);
  if (n < 0) return NakErrno(error);
  if (n == 0) return Nak(std::string(wire::kEndOfFileRefusal));
  data.resize(static_cast<std::size_t>(n));
  return Ack(std::move(data));
}

FileReply OpenFiles::Write(std::string_view payload) {
  // The data may hold NULs: it is taken from the payload with its padding,
  // by the count the request gives.
  long long number;
  std::string_view data;
  if (!wire::ParseWriteRequest(payload, &number, &data)) return Nak("bad request");
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  int error = 0;
  if (!it->second->Write(data.data(), data.size(), &error)) return NakErrno(error);
  return Ack(std::to_string(data.size()));
}

FileReply OpenFiles::Seek(std::string_view text) {
  long long number, offset, whence;
  if (!wire::ParseSeekRequest(text, &number, &offset, &whence)) return Nak("bad request");
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  if (whence < 0 || whence > 2) whence = 0;
  int error = 0;
  if (!it->second->Seek(offset, static_cast<int>(whence), &error)) return NakErrno(error);
  std::int64_t pos = it->second->Tell(&error);
  if (pos < 0) return NakErrno(error);
  return Ack(std::to_string(pos));
}

FileReply OpenFiles::OnFile(int category, std::string_view text) {
  long long number;
  if (!wire::ParseNumberRequest(text, &number)) return Nak("bad request");
  auto it = files_.find(static_cast<long>(number));
  if (it == files_.end()) return Nak("bad file number");
  platform::File& file = *it->second;
  switch (category) {
    case VARN_FCLOSE:
      files_.erase(it);
      return Ack();
    case VARN_FREWIND:
      file.Rewind();
      return Ack();
    case VARN_FEOF:
      return Ack(file.AtEnd() ? "1" : "0");
    default: {  // FTELL
      int error = 0;
      std::int64_t pos = file.Tell(&error);
      if (pos < 0) return NakErrno(error);
      return Ack(std::to_string(pos));
    }
  }
}

FileReply OpenFiles::OnPath(int category, std::string_view text) {
  std::string path(text);
  int error = 0;
  if (category == VARN_FUNLINK) {
    if (!root_.Remove(path, &error)) return NakErrno(error);
    return Ack();
  }
  int kind = 0;
  if (!root_.KindOf(path, &kind, &error)) return NakErrno(error);
  return Ack(std::to_string(kind));
}

}  // namespace varn::quon
