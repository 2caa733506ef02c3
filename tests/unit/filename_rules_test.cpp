#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "module/platform/MIMETypes.h"
#include "module/platform/Text.h"
#include "module/probe/DFDownloadOperationInfoLoader.h"
#include "module/probe/DFFilenameRules.h"
#include "shelfkit/runtime/MimeTypeTable.h"

namespace {

using Loader = DFDownloadOperationInfoLoader;

// A response for `url`, with the header `name` when `value` is set.
platform::HTTPURLResponse response(const std::string& url, const char* name = "", const char* value = nullptr) {
  std::vector<std::pair<std::string, std::string>> headers;
  if (value) headers.emplace_back(name, value);
  return platform::HTTPURLResponse(*platform::URL::URLWithString(url), 200, std::move(headers));
}

TEST(FilenameRules, ContentDisposition) {
  const std::string many(100000, ';');
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"attachment; filename=\"report.pdf\"", "report.pdf"},
      {"attachment; filename=report.pdf", "report.pdf"},   {"attachment;filename=report.pdf", "report.pdf"},
      {"attachment; filename*=UTF-8''na%C3%AFve%20file.txt", "na\xC3\xAFve file.txt"},
      {"attachment; filename*=utf-8''a%20b.txt", "utf-8''a%20b.txt"},       // charset prefix is case-sensitive
      {"attachment; filename*=ISO-8859-1'en'a.txt", "ISO-8859-1'en'a.txt"},  // kept as it stands
      {"attachment; filename*=UTF-8''bad%zz.txt", std::nullopt},            // malformed escape
      {"attachment; filename*=UTF-8''%FF%FE.txt", std::nullopt},            // not UTF-8
      {"attachment; filename=\"plain.txt\"; filename*=UTF-8''ext.txt", "plain.txt"},  // first one wins
      {"attachment; filename=a.txt; filename*=UTF-8''b.txt", "a.txt"},                  // also unquoted
      {"attachment; filename*=UTF-8''ext.txt; filename=\"plain.txt\"", "ext.txt"},
      {"attachment; FileName=\"x.txt\"", std::nullopt},                     // case-sensitive prefix
      {"attachment; filenames=\"x.txt\"", "x.txt"},                         // any word starting with filename
      {"attachment; filename=a%20b.txt", "a%20b.txt"},                      // no decoding in plain form
      {"attachment; filename=\"a;b.txt\"", "a"},                            // a plain split at ';'
      {"attachment; filename=", std::nullopt},        {"attachment; filename=\"\"", std::nullopt},
      {"attachment; filename=\"", std::nullopt},      {"attachment; filename=  \t", std::nullopt},
      {"attachment; filename", std::nullopt},
      {"attachment; filename=\"x*=y.txt\"", "y.txt"},                       // "*=" is searched first
      {"attachment; filename=\"\"x\"\"", "\"x\""},                          // one quote off each end
      {"attachment", std::nullopt},                   {"", std::nullopt},
      {"inline; name=\"x\"; filename=  \"spaced.txt\"  ", "spaced.txt"},
      // Hostile values answer without crashing.
      {many, std::nullopt},
      {many + "filename=x.bin", "x.bin"},
      {"attachment; filename=" + std::string(100 * 1024, 'a'), std::string(100 * 1024, 'a')},
      {std::string("attachment; filename=a\0b.txt", 28), std::string("a\0b.txt", 7)},
      {"attachment; filename*=UTF-8''%", std::nullopt}, {"attachment; filename*=UTF-8''%4", std::nullopt},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(value.substr(0, 80));
    EXPECT_EQ(DFFilenameFromContentDisposition(value), expected);
  }
}

TEST(FilenameRules, NameFromThePath) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"http://h.test/files/Report.PDF", "Report.PDF"},   {"http://h.test/download.php?id=5", std::nullopt},
      {"http://h.test/file.php3", "file.php3"},           {"http://h.test/file.php4", "file.php4"},
      {"http://h.test/file.PHP", std::nullopt},           {"http://h.test/cgi/run.cgi", std::nullopt},
      {"http://h.test/x.php3php4", std::nullopt},         {"http://h.test/files/report", std::nullopt},
      {"http://h.test/", std::nullopt},                   {"http://h.test/dir/some%20file.txt", "some file.txt"},
  };
  for (const auto& [url, expected] : cases) {
    SCOPED_TRACE(url);
    EXPECT_EQ(Loader::filenameFromPath(response(url)), expected);
  }
}

TEST(FilenameRules, NameFromTheMIMEType) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"application/pdf", "Unknown.pdf"},
      {"application/zip; charset=binary", "Unknown.zip"},
      {"application/x-unknown-to-anyone", std::nullopt},
      {"application/octet-stream", std::nullopt},  // catch-all types name no kind of file
      {"Application/Octet-Stream", std::nullopt},   {"binary/octet-stream", std::nullopt},
      {"video/quicktime", "Unknown.mov"},          // not Debian's first-listed "qt"
      {"video/x-matroska", "Unknown.mkv"},          {nullptr, std::nullopt},
  };
  for (const auto& [type, expected] : cases) {
    SCOPED_TRACE(type ? type : "(none)");
    EXPECT_EQ(Loader::filenameFromMIMEType(response("http://h.test/x", "Content-Type", type)), expected);
  }
}

TEST(MimeTypeTable, BuiltInEntriesAgreeWithTheSystemFile) {
  std::ifstream file("/etc/mime.types");
  if (!file) GTEST_SKIP() << "no /etc/mime.types here";
  const auto system = shelfkit::parseMimeTypes(file);
  ASSERT_GT(system.size(), 100u);
  // A built-in entry wins over the system file's first-listed extension.
  for (const auto& [type, extension] : shelfkit::builtInPreferredExtensions()) {
    SCOPED_TRACE(type);
    EXPECT_EQ(platform::preferredFilenameExtensionForMIMEType(type), extension);
    auto listed = system.find(type);
    if (listed == system.end()) continue;
    EXPECT_NE(std::find(listed->second.begin(), listed->second.end(), extension), listed->second.end())
        << "the system file does not list ." << extension << " for this type";
  }
  // The system file does list extensions for the generic binary type; none is taken.
  EXPECT_TRUE(system.count("application/octet-stream"));
  std::istringstream generic("application/octet-stream bin\nbinary/octet-stream dat\ntext/x-thing thing\n");
  const auto table = shelfkit::makeMimeTypeTable(&generic);
  EXPECT_FALSE(table.count("application/octet-stream"));
  EXPECT_FALSE(table.count("binary/octet-stream"));
  EXPECT_EQ(table.at("text/x-thing"), "thing");
}

TEST(FilenameRules, SizeOnlyFromTheOneByteAnswer) {
  const std::pair<const char*, int64_t> cases[] = {
      {"bytes 1-1/5000", 5000}, {"bytes 0-0/5000", 0}, {"bytes  1-1/5000", 0}, {"bytes 1-1/*", 0},
      {"bytes 1-2/5000", 0},    {"items 1-1/5000", 0}, {nullptr, 0},
  };
  for (const auto& [contentRange, expected] : cases) {
    SCOPED_TRACE(contentRange ? contentRange : "(none)");
    // Header names match in any case.
    EXPECT_EQ(Loader::fileSize(response("http://h.test/x", "content-range", contentRange)), expected);
  }
}

TEST(FilenameRules, MediaExtensionSet) {
  const auto& media = Loader::mediaExtensions();
  EXPECT_EQ(media.size(), 109u);
  for (const char* member : {"mp3", "mp4", "bin", "iso", "xesc", "3ga", "flac", "m3u8"}) {
    SCOPED_TRACE(member);
    EXPECT_EQ(media.count(member), std::string(member) != "m3u8");
  }
}

TEST(SuggestedFilename, NeverEmpty) {
  // URL, Content-Disposition, suggested name.
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"http://h.test/a/b.zip", "attachment; filename=\"d.txt\"", "d.txt"},
      {"http://h.test/a/b.zip", "attachment; filename*=UTF-8''%C3%A9.txt", "\xC3\xA9.txt"},
      {"http://h.test/a/b.zip", nullptr, "b.zip"},
      {"http://h.test/", nullptr, "h.test"},
      {"http://h.test/x", "attachment; filename=\"../../etc/passwd\"", ".._.._etc_passwd"},
  };
  for (const auto& [url, disposition, expected] : cases) {
    SCOPED_TRACE(url);
    EXPECT_EQ(response(url, "Content-Disposition", disposition).suggestedFilename(), expected);
  }
}

TEST(HeaderText, BytesThatAreNotUTF8AreReadAsLatin1) {
  EXPECT_EQ(platform::UTF8FromHeaderBytes("caf\xE9.txt"), "caf\xC3\xA9.txt");
  EXPECT_EQ(platform::UTF8FromHeaderBytes("caf\xC3\xA9.txt"), "caf\xC3\xA9.txt");
  EXPECT_FALSE(platform::isValidUTF8("\xED\xA0\x80"));  // a surrogate
  EXPECT_FALSE(platform::isValidUTF8("\xC0\xAF"));      // overlong
  EXPECT_TRUE(platform::isValidUTF8("\xF0\x9F\x98\x80"));
}

}  // namespace
