// The process list a process receives from the hub (the QUERYP answer).
//
// The input is a run of packets as the hub sends them; the payload of each
// QUERYP is read as the library keeps it (a copy with a NUL after it) with
// the public cursor calls, and with the record reader underneath them. An
// input that does not frame as packets is taken as one list, so that
// mutations which break the length field still reach the reader.
//
// Checks: the cursor only moves forward and stays inside the text, every
// word fits its buffer, the list is left unchanged, both readers agree, and
// a list rebuilt from the records the hub's way reads back the same.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tests/fuzz/fuzz_support.h"
#include "transport/wire_requests.h"
#include "varn.h"

namespace {

namespace wire = varn::wire;

struct Record {
  std::string name, address, parent;
  int status = 0;
  bool operator==(const Record&) const = default;
};

std::vector<Record> ReadWithRecordReader(std::string_view list) {
  std::vector<Record> records;
  std::string_view rest = list;
  wire::ProcessRecord r;
  while (wire::NextProcessRecord(&rest, &r)) {
    // The rest is a tail of the list, shorter than before.
    FUZZ_CHECK(rest.data() >= list.data() &&
               rest.data() + rest.size() <= list.data() + list.size());
    FUZZ_CHECK(records.size() <= list.size());
    for (std::string_view word : {r.name, r.address, r.parent}) {
      FUZZ_CHECK(word.find(' ') == std::string_view::npos);
      FUZZ_CHECK(word.find('\0') == std::string_view::npos);
    }
    records.push_back(
        {std::string(r.name), std::string(r.address), std::string(r.parent), r.status});
    // The server name a record stands for is part of its program name.
    std::string_view base = wire::ProgramBaseName(r.name);
    FUZZ_CHECK(base.size() <= r.name.size());
  }
  return records;
}

std::vector<Record> ReadWithCursor(char* list) {
  const std::string before(list);
  const char* end = list + before.size();
  std::vector<Record> records;
  char* cursor = nullptr;
  FUZZ_CHECK(varn_prep_query_result(list, &cursor) == 1 && cursor == list);
  char name[VARN_QUERY_WORD_SIZE], address[VARN_QUERY_WORD_SIZE], third[VARN_QUERY_WORD_SIZE];
  int number = 0;
  char* previous = cursor;
  while (varn_get_query_result(&cursor, name, address, third, &number) == 1) {
    FUZZ_CHECK(cursor > previous && cursor <= end);
    previous = cursor;
    records.push_back({name, address, third, number});
  }
  FUZZ_CHECK(before == list);  // the reader writes nothing into the list
  return records;
}

// A word as the cursor calls hand it out: cut to its buffer.
std::string Cut(const std::string& word) { return word.substr(0, VARN_QUERY_WORD_SIZE - 1); }

void ReadList(std::string_view payload) {
  // The library keeps an answer's payload as a copy with a NUL after it.
  std::vector<char> kept(payload.begin(), payload.end());
  kept.push_back('\0');
  std::vector<Record> records = ReadWithRecordReader(payload);
  std::vector<Record> cursor_records = ReadWithCursor(kept.data());
  FUZZ_CHECK(cursor_records.size() == records.size());
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Record& r = records[i];
    FUZZ_CHECK(cursor_records[i] == (Record{Cut(r.name), Cut(r.address), Cut(r.parent), r.status}));
  }

  // The hub builds the list record by record; what it builds from these
  // records reads back as the same records.
  std::string rebuilt;
  for (const Record& r : records) {
    wire::AppendProcessRecord(&rebuilt, r.name, r.address, r.parent, r.status);
  }
  FUZZ_CHECK(ReadWithRecordReader(rebuilt) == records);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  bool framed = false;
  varn::fuzz::ForEachPacket(data, size, [&](const varn::fuzz::WirePacket& p) {
    framed = true;
    if (p.category == VARN_QUERYP) ReadList(p.payload());
  });
  if (!framed) ReadList(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
