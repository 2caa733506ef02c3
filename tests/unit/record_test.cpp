#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "module/core/DFDownloadOperation.h"

namespace {

platform::URL url(const char* text) { return *platform::URL::URLWithString(text); }

// The fields a record archives, besides its URL and id: position, actual
// position, size, priority, file name, output name, active, partial.
using Fields = std::tuple<int64_t, int64_t, int64_t, int64_t, std::optional<std::string>, std::optional<std::string>,
                          bool, bool>;

Fields fields(const DFDownloadOperation& r) {
  return {r.position(), r.actualPosition(), r.size(),   r.priority(),
          r.filename(), r.outputFilename(), r.active(), r.partialDownloading()};
}

// Each case starts from a fresh record: its own canonical UUID and nothing else set.
TEST(DownloadOperation, RoundTripWritesTheNineKeysInOrderKeepsArchivedFieldsAndResetsTheOthers) {
  const std::vector<std::string> keys = {"url",  "uniqueId", "position", "priority", "filename", "outputFilename",
                                         "size", "active",   "partialDownloading"};
  const std::pair<const char*, Fields> cases[] = {
      {"midway", {1048576, 1500000, 5000000, 7, "a.bin", "a.bin", true, true}},
      {"never named", {}},
      {"empty names stay empty", {0, 10, 0, 2, "", "", true, false}},
      {"unknown size", {4096, 8192, 0, 1, "stream.m3u8", "stream.mov", true, false}},
      {"large values", {INT64_MAX - 1, INT64_MAX, INT64_MAX, -5, "ü ñ.txt", "名前.txt", false, true}},
  };
  std::set<std::string> ids;
  const std::regex canonical("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
  for (const auto& [name, set] : cases) {
    SCOPED_TRACE(name);
    auto record = DFDownloadOperation::initWithURL(url("http://host.test/p?q=1"));
    EXPECT_TRUE(ids.insert(record->uniqueId()).second) << "the same URL, another id";
    EXPECT_TRUE(std::regex_match(record->uniqueId(), canonical)) << record->uniqueId();
    EXPECT_EQ(fields(*record), Fields{});
    EXPECT_FALSE(record->retryDate());
    const auto& [position, actualPosition, size, priority, filename, outputFilename, active, partial] = set;
    record->setPosition(position);
    record->setActualPosition(actualPosition);
    record->setSize(size);
    record->setPriority(priority);
    record->setFilename(filename);
    record->setOutputFilename(outputFilename);
    record->setActive(active);
    record->setPartialDownloading(partial);
    record->setRetryDate(platform::now() + std::chrono::seconds(10));

    platform::KeyedArchiver archiver;
    record->encodeWithCoder(archiver);
    std::vector<std::string> written;
    const platform::KeyedArchive archive = archiver.archive();
    for (auto& [key, value] : archive.items()) written.push_back(key);
    EXPECT_EQ(written, keys);
    auto coder = platform::KeyedUnarchiver::fromData(archiver.encodedData());
    auto back = DFDownloadOperation::initWithCoder(coder);
    ASSERT_TRUE(back);
    EXPECT_NE(back, record);
    EXPECT_EQ(back->url().absoluteString(), "http://host.test/p?q=1");
    EXPECT_EQ(back->uniqueId(), record->uniqueId());
    Fields expected = set;
    std::get<1>(expected) = position;  // bytes in flight are forgotten
    EXPECT_EQ(fields(*back), expected);
    EXPECT_FALSE(back->retryDate()) << "a pending retry wait does not survive";
  }
}

TEST(DownloadOperation, ArchivesThatCannotBeDecodedYieldNoRecord) {
  const char* cases[] = {
      "", "not json", "[1,2,3]",
      R"({"uniqueId":{"string":"A"},"position":{"int64":0}})",                              // no url
      R"({"url":{"url":"http://a/"},"position":{"int64":0}})",                              // no uniqueId
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":""}})",                            // empty uniqueId
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":"A"},"position":{"bool":true}})",  // wrong kind
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":"A"},"position":"12"})",           // untyped value
      R"({"url":{"url":"not a url"},"uniqueId":{"string":"A"}})",
      R"({"url":{"string":"http://a/"},"uniqueId":{"string":"A"}})",
      "{\"url\":{\"url\":\"http://a/\"},\"uniqueId\":{\"string\":\"\xff\xfe\"}}",  // invalid UTF-8
  };
  for (const char* data : cases) {
    SCOPED_TRACE(data);
    auto coder = platform::KeyedUnarchiver::fromData(data);
    EXPECT_FALSE(DFDownloadOperation::initWithCoder(coder));
  }
  // The least that decodes: a URL and an id; missing integers and booleans read as 0 and false.
  auto coder = platform::KeyedUnarchiver::fromData(R"({"url":{"url":"http://a/f"},"uniqueId":{"string":"ID"}})");
  auto record = DFDownloadOperation::initWithCoder(coder);
  ASSERT_TRUE(record);
  EXPECT_EQ(fields(*record), Fields{});
}

// Archives this program writes are read without a JSON tree; anything else
// any JSON writer could produce must read exactly as before.
TEST(DownloadOperation, ArchivesInAnyJSONFormReadTheSame) {
  // The archive, whether reading it fails, the position and file name read from it.
  const std::tuple<const char*, bool, int64_t, std::optional<std::string>> cases[] = {
      {R"({"position":{"int64":7},"filename":{"string":"a.bin"}})", false, 7, "a.bin"},
      {R"( { "position" : { "int64" : 7 } } )", false, 7, std::nullopt},
      {R"({"filename":{"string":"caf\u00e9 \"x\".bin"}})", false, 0, "caf\xc3\xa9 \"x\".bin"},
      {"{\"filename\":{\"string\":\"caf\xc3\xa9.bin\"}}", false, 0, "caf\xc3\xa9.bin"},
      {R"({"position":{"int64":7},"position":{"int64":-8}})", false, -8, std::nullopt},  // the last counts
      {R"({"position":null,"filename":null})", false, 0, std::nullopt},
      {R"({"position":{"int64":-0}})", false, 0, std::nullopt},
      {R"({})", false, 0, std::nullopt},
      {R"({"position":{"int64":01}})", true, 0, std::nullopt},  // not JSON
      {R"({"position":{"int64":1.5}})", true, 0, std::nullopt},
      {R"({"position":{"int64":null}})", true, 0, std::nullopt},
      {R"({"position":{}})", true, 0, std::nullopt},
      {R"({"position":{"int64":7,"bool":true}})", true, 0, std::nullopt},
      {R"({"position":{"int64":7,"int64":9}})", false, 9, std::nullopt},
      {R"({"position":{"int64":[7]}})", true, 0, std::nullopt},
      {R"({"position":{"int64":7}}x)", true, 0, std::nullopt},
      {R"({"position":{"int64":7})", true, 0, std::nullopt},
      {"7", true, 0, std::nullopt},
  };
  for (const auto& [data, failed, position, filename] : cases) {
    SCOPED_TRACE(data);
    auto coder = platform::KeyedUnarchiver::fromData(data);
    EXPECT_EQ(coder.decodeInt64ForKey("position"), position);
    EXPECT_EQ(coder.decodeStringForKey("filename"), filename);
    EXPECT_EQ(coder.failed(), failed);
  }
}

}  // namespace
