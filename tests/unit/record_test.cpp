#include <gtest/gtest.h>

#include <regex>

#include "module/core/DFDownloadOperation.h"

namespace {

platform::URL url(const char* text) { return *platform::URL::URLWithString(text); }

std::shared_ptr<DFDownloadOperation> roundTrip(const DFDownloadOperation& record) {
  platform::KeyedArchiver archiver;
  record.encodeWithCoder(archiver);
  auto coder = platform::KeyedUnarchiver::fromData(archiver.encodedData());
  return DFDownloadOperation::initWithCoder(coder);
}

TEST(DownloadOperation, FreshRecordHasItsOwnCanonicalUUIDAndInitialFields) {
  auto a = DFDownloadOperation::initWithURL(url("http://example.com/a.zip"));
  auto b = DFDownloadOperation::initWithURL(url("http://example.com/a.zip"));
  EXPECT_NE(a->uniqueId(), b->uniqueId());
  EXPECT_TRUE(std::regex_match(a->uniqueId(), std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")))
      << a->uniqueId();
  EXPECT_EQ(a->url().absoluteString(), "http://example.com/a.zip");
  EXPECT_FALSE(a->active());
  EXPECT_FALSE(a->partialDownloading());
  EXPECT_EQ(a->position(), 0);
  EXPECT_EQ(a->actualPosition(), 0);
  EXPECT_EQ(a->size(), 0);
  EXPECT_EQ(a->priority(), 0);
  EXPECT_FALSE(a->filename());
  EXPECT_FALSE(a->outputFilename());
  EXPECT_FALSE(a->retryDate());
}

TEST(DownloadOperation, ArchiveWritesTheNineKeysInOrder) {
  auto record = DFDownloadOperation::initWithURL(url("https://example.com/x"));
  platform::KeyedArchiver archiver;
  record->encodeWithCoder(archiver);
  std::vector<std::string> keys;
  const platform::KeyedArchive archive = archiver.archive();
  for (auto& [key, value] : archive.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"url", "uniqueId", "position", "priority", "filename", "outputFilename",
                                            "size", "active", "partialDownloading"}));
}

TEST(DownloadOperation, RoundTripKeepsArchivedFieldsAndResetsTheOthers) {
  struct Case {
    const char* name;
    int64_t position, actualPosition, size, priority;
    std::optional<std::string> filename, outputFilename;
    bool active, partial;
  } cases[] = {
      {"midway", 1048576, 1500000, 5000000, 7, "a.bin", "a.bin", true, true},
      {"never named", 0, 0, 0, 0, std::nullopt, std::nullopt, false, false},
      {"empty names stay empty", 0, 10, 0, 2, "", "", true, false},
      {"unknown size", 4096, 8192, 0, 1, "stream.m3u8", "stream.mov", true, false},
      {"large values", INT64_MAX - 1, INT64_MAX, INT64_MAX, -5, "ü ñ.txt", "名前.txt", false, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto record = DFDownloadOperation::initWithURL(url("http://host.test/p?q=1"));
    record->setPosition(c.position);
    record->setActualPosition(c.actualPosition);
    record->setSize(c.size);
    record->setPriority(c.priority);
    record->setFilename(c.filename);
    record->setOutputFilename(c.outputFilename);
    record->setActive(c.active);
    record->setPartialDownloading(c.partial);
    record->setRetryDate(platform::now() + std::chrono::seconds(10));

    auto back = roundTrip(*record);
    ASSERT_TRUE(back);
    EXPECT_NE(back, record);
    EXPECT_EQ(back->url(), record->url());
    EXPECT_EQ(back->uniqueId(), record->uniqueId());
    EXPECT_EQ(back->position(), c.position);
    EXPECT_EQ(back->actualPosition(), c.position) << "bytes in flight are forgotten";
    EXPECT_EQ(back->size(), c.size);
    EXPECT_EQ(back->priority(), c.priority);
    EXPECT_EQ(back->filename(), c.filename);
    EXPECT_EQ(back->outputFilename(), c.outputFilename);
    EXPECT_EQ(back->active(), c.active);
    EXPECT_EQ(back->partialDownloading(), c.partial);
    EXPECT_FALSE(back->retryDate()) << "a pending retry wait does not survive";
  }
}

TEST(DownloadOperation, ArchivesThatCannotBeDecodedYieldNoRecord) {
  const char* cases[] = {
      "",
      "not json",
      "[1,2,3]",
      R"({"uniqueId":{"string":"A"},"position":{"int64":0}})",                           // no url
      R"({"url":{"url":"http://a/"},"position":{"int64":0}})",                           // no uniqueId
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":""}})",                         // empty uniqueId
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":"A"},"position":{"bool":true}})",  // wrong kind
      R"({"url":{"url":"http://a/"},"uniqueId":{"string":"A"},"position":"12"})",       // untyped value
      R"({"url":{"url":"not a url"},"uniqueId":{"string":"A"}})",
      R"({"url":{"string":"http://a/"},"uniqueId":{"string":"A"}})",
      "{\"url\":{\"url\":\"http://a/\"},\"uniqueId\":{\"string\":\"\xff\xfe\"}}",        // invalid UTF-8
  };
  for (const char* data : cases) {
    SCOPED_TRACE(data);
    auto coder = platform::KeyedUnarchiver::fromData(data);
    EXPECT_FALSE(DFDownloadOperation::initWithCoder(coder));
  }
}

// Archives this program writes are read without a JSON tree; anything else
// any JSON writer could produce must read exactly as before.
TEST(DownloadOperation, ArchivesInAnyJSONFormReadTheSame) {
  struct Case {
    const char* data;
    bool failed;
    int64_t position;
    std::optional<std::string> filename;
  };
  const Case cases[] = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.data);
    auto coder = platform::KeyedUnarchiver::fromData(c.data);
    EXPECT_EQ(coder.decodeInt64ForKey("position"), c.position);
    EXPECT_EQ(coder.decodeStringForKey("filename"), c.filename);
    EXPECT_EQ(coder.failed(), c.failed);
  }
}

TEST(DownloadOperation, MissingIntegerAndBooleanKeysReadAsZeroAndFalse) {
  auto coder = platform::KeyedUnarchiver::fromData(R"({"url":{"url":"http://a/f"},"uniqueId":{"string":"ID"}})");
  auto record = DFDownloadOperation::initWithCoder(coder);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->position(), 0);
  EXPECT_EQ(record->size(), 0);
  EXPECT_FALSE(record->active());
  EXPECT_FALSE(record->filename());
}

}  // namespace
