// Remote file requests, carried out by the hub for one client.
//
// Each client has its own table of open files, numbered from 1 in the order
// they were opened; numbers are not reused while the client lives. Paths
// are opened beneath the files root by the kernel (platform::FilesRoot),
// which refuses every way outside it.
// Every request gets exactly one answer: FACK with the result, or FNAK with
// a short reason ("0" for a read at the end of a file).
#ifndef VARN_QUON_FILE_SERVICE_H_
#define VARN_QUON_FILE_SERVICE_H_

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "platform/files.h"

namespace varn::quon {

struct FileReply {
  int category;         // VARN_FACK or VARN_FNAK
  std::string payload;  // empty: no payload
};

class OpenFiles {
 public:
  static constexpr std::size_t kMaxOpenFiles = 256;
  // The most bytes one FREAD answers with.
  static constexpr std::size_t kMaxRead = 512 * 1024;

  // root must be open and outlive the object.
  explicit OpenFiles(const platform::FilesRoot& root) : root_(root) {}

  // payload is the request's payload as received (padding included).
  FileReply Handle(int category, std::string_view payload);
  void CloseAll() { files_.clear(); }
  std::size_t open_count() const { return files_.size(); }

 private:
  FileReply Open(std::string_view text);
  FileReply Read(std::string_view text);
  FileReply Write(std::string_view payload);
  FileReply Seek(std::string_view text);
  FileReply OnFile(int category, std::string_view text);
  FileReply OnPath(int category, std::string_view text);

  const platform::FilesRoot& root_;
  std::map<long, std::unique_ptr<platform::File>> files_;
  long next_number_ = 1;
};

}  // namespace varn::quon

#endif  // VARN_QUON_FILE_SERVICE_H_
