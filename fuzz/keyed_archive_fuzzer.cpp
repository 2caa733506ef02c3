// A stored record of any bytes, decoded the way the record database does. A
// record that decodes must survive encoding and decoding again unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "module/core/DFDownloadOperation.h"
#include "module/platform/KeyedArchive.h"
#include "fuzz/FuzzCheck.h"

namespace {

// RecordDatabase::items<T>() for one stored row.
std::shared_ptr<DFDownloadOperation> decode(std::string_view data) {
  platform::KeyedUnarchiver coder = platform::KeyedUnarchiver::fromData(data);
  return coder.failed() ? nullptr : DFDownloadOperation::initWithCoder(coder);
}

void checkSame(const DFDownloadOperation& a, const DFDownloadOperation& b) {
  CHECK(a.url() == b.url());
  CHECK(a.url().scheme() == b.url().scheme());
  CHECK(a.url().host() == b.url().host());
  CHECK(a.url().path() == b.url().path());
  CHECK(a.uniqueId() == b.uniqueId());
  CHECK(a.position() == b.position());
  CHECK(a.actualPosition() == b.actualPosition());
  CHECK(a.size() == b.size());
  CHECK(a.priority() == b.priority());
  CHECK(a.filename() == b.filename());
  CHECK(a.outputFilename() == b.outputFilename());
  CHECK(a.active() == b.active());
  CHECK(a.partialDownloading() == b.partialDownloading());
  CHECK(!b.retryDate());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);

  // Every typed read copes with any archive, and a failure stays failed.
  {
    platform::KeyedUnarchiver coder = platform::KeyedUnarchiver::fromData(bytes);
    const bool failedAtStart = coder.failed();
    (void)coder.decodeStringForKey("filename");
    (void)coder.decodeURLForKey("url");
    (void)coder.decodeInt64ForKey("position");
    (void)coder.decodeIntegerForKey("size");
    (void)coder.decodeBoolForKey("active");
    if (failedAtStart) CHECK(coder.failed());
  }

  // Reading the text directly gives what reading its parsed tree gives.
  {
    platform::KeyedUnarchiver direct = platform::KeyedUnarchiver::fromData(bytes);
    auto tree = platform::KeyedArchive::parse(bytes, nullptr, /*allow_exceptions=*/false);
    platform::KeyedUnarchiver viaTree(tree.is_discarded() ? platform::KeyedArchive() : tree);
    CHECK(direct.failed() == viaTree.failed());
    CHECK(direct.decodeStringForKey("filename") == viaTree.decodeStringForKey("filename"));
    CHECK(direct.decodeInt64ForKey("position") == viaTree.decodeInt64ForKey("position"));
    CHECK(direct.decodeBoolForKey("active") == viaTree.decodeBoolForKey("active"));
    CHECK(direct.decodeURLForKey("url") == viaTree.decodeURLForKey("url"));
    CHECK(direct.failed() == viaTree.failed());
  }

  auto record = decode(bytes);
  if (!record) return 0;
  CHECK(!record->uniqueId().empty());
  CHECK(record->actualPosition() == record->position());
  CHECK(!record->retryDate());

  platform::KeyedArchiver archiver;
  record->encodeWithCoder(archiver);
  const std::string encoded = archiver.encodedData();
  // The text written is a JSON object (archive() throws otherwise).
  CHECK(archiver.archive().is_object());

  auto again = decode(encoded);
  CHECK(again);
  checkSame(*record, *again);

  // The second encoding is byte for byte the first.
  platform::KeyedArchiver archiver2;
  again->encodeWithCoder(archiver2);
  CHECK(archiver2.encodedData() == encoded);

  // The parsed archive gives the same record as its text.
  platform::KeyedUnarchiver fromTree(archiver.archive());
  CHECK(!fromTree.failed());
  auto fromTreeRecord = DFDownloadOperation::initWithCoder(fromTree);
  CHECK(fromTreeRecord);
  checkSame(*record, *fromTreeRecord);
  return 0;
}
