#include "module/probe/DFDownloadOperationInfoLoader.h"

#include "module/core/DFLocalizedString.h"
#include "module/naming/DFPrettyFilenameGenerator.h"
#include "module/platform/Log.h"
#include "module/platform/MIMETypes.h"
#include "module/platform/MainQueue.h"
#include "module/probe/DFContentRange.h"
#include "module/probe/DFFilenameRules.h"

const std::unordered_set<std::string>& DFDownloadOperationInfoLoader::mediaExtensions() {
  static const std::unordered_set<std::string> set = {
      "3ga",  "669",   "a52",  "aac",   "ac3",   "au",   "adt",  "adts",  "aif",  "aifc", "aiff", "amr",  "aob",
      "ape",  "awb",   "caf",  "dts",   "flac",  "it",   "kar",  "m4a",   "m4b",  "m4p",  "m5p",  "mid",  "mka",
      "mlp",  "mod",   "mpa",  "mp1",   "mp2",   "mp3",  "mpc",  "mpga",  "oga",  "ogg",  "oma",  "opus", "qcp",
      "ra",   "rmi",   "s3m",  "spx",   "thd",   "tta",  "voc",  "vqf",   "w64",  "wav",  "wma",  "wv",   "xa",
      "xm",   "3g2",   "3gp",  "3gp2",  "3gpp",  "amv",  "asf",  "avi",   "bin",  "divx", "drc",  "dv",   "f4v",
      "flv",  "gvi",   "gxf",  "iso",   "m1v",   "m2v",  "m2t",  "m2ts",  "m4v",  "mkv",  "mov",  "mp2",  "mp2v",
      "mp4",  "mp4v",  "mpe",  "mpeg",  "mpeg1", "mpeg2", "mpeg4", "mpg",  "mpv2", "mts",  "mtv",  "mxf",  "mxg",
      "nsv",  "nuv",   "ogg",  "ogm",   "ogv",   "ogx",  "ps",   "rec",   "rm",   "rmvb", "tod",  "ts",   "tts",
      "vob",  "vro",   "webm", "wm",    "wmv",   "wtv",  "xesc",
  };
  return set;
}

const std::unordered_set<std::string>& DFDownloadOperationInfoLoader::scriptExtensions() {
  static const std::unordered_set<std::string> set = {"php",   "cgi",   "aspx",     "pl",  "py", "jsp", "asp",
                                                      "sh",    "pcgi",  "pcgi4",    "pcgi5", "php3php4", "php5"};
  return set;
}

std::shared_ptr<DFDownloadOperationInfoLoader> DFDownloadOperationInfoLoader::initWithDownloadOperation(
    std::shared_ptr<DFDownloadOperation> downloadOperation, std::optional<MIMETypes> permittedMIMETypes,
    std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> delegate) {
  auto loader = std::make_shared<DFDownloadOperationInfoLoader>(Passkey{}, std::move(downloadOperation),
                                                                std::move(permittedMIMETypes), std::move(delegate));
  loader->start();
  return loader;
}

DFDownloadOperationInfoLoader::DFDownloadOperationInfoLoader(
    Passkey, std::shared_ptr<DFDownloadOperation> downloadOperation, std::optional<MIMETypes> permittedMIMETypes,
    std::weak_ptr<DFDownloadOperationInfoLoaderDelegate> delegate)
    : _permittedMIMETypes(std::move(permittedMIMETypes)),
      _delegate(std::move(delegate)),
      _downloadOperation(std::move(downloadOperation)) {}

DFDownloadOperationInfoLoader::~DFDownloadOperationInfoLoader() { cancel(); }

void DFDownloadOperationInfoLoader::start() {
  DCHECK_ON_MAIN();
  platform::URLRequest request(_downloadOperation->url());
  request.setValue("bytes=1-1", "Range");
  _connection = platform::URLConnection::connectionWithRequest(request, weak_from_this());
}

void DFDownloadOperationInfoLoader::cancel() {
  if (_connection) _connection->cancel();
}

void DFDownloadOperationInfoLoader::reportError(const std::optional<std::string>& error) {
  if (auto delegate = _delegate.lock()) delegate->downloadOperationInfoLoader(*this, error);
}

void DFDownloadOperationInfoLoader::didReceiveResponse(platform::URLConnection&,
                                                       const platform::HTTPURLResponse& response) {
  DCHECK_ON_MAIN();
  cancel();

  if (_permittedMIMETypes && !_permittedMIMETypes->empty()) {
    const std::string& type = response.MIMEType();
    if (type.empty() || !_permittedMIMETypes->count(type)) {
      platform::log("Invalid mime-type:" + type);
      reportError(DFLocalizedString("Invalid mime-type"));
      return;
    }
  }

  std::optional<std::string> filename = filenameFromHeaders(response);
  if (!filename || filename->empty()) filename = filenameFromPath(response);
  if (!filename || filename->empty()) filename = filenameFromMIMEType(response);
  if (!filename || filename->empty()) filename = response.suggestedFilename();

  const std::string extension = DFLowercaseASCII(platform::pathExtension(*filename));
  if (!extension.empty() && mediaExtensions().count(extension)) {
    reportError(DFLocalizedString("Downloading of media content is prohibited"));
    return;
  }

  std::weak_ptr<DFDownloadOperationInfoLoader> weak = weak_from_this();
  auto completion = [weak, response](const std::string& finalName) {
    if (auto self = weak.lock()) self->completeWithFilename(finalName, response);
  };
  if (auto generator = DFPrettyFilenameGenerator::sharedInstance()) {
    generator->generatePrettyFilenameForURL(_downloadOperation->url(), *filename, completion);
  } else {
    completion(*filename);
  }
}

void DFDownloadOperationInfoLoader::completeWithFilename(const std::string& filename,
                                                         const platform::HTTPURLResponse& response) {
  DCHECK_ON_MAIN();
  _downloadOperation->setFilename(filename);
  _downloadOperation->setOutputFilename(filename);
  if (response.expectedContentLength() == 1) {
    const int64_t size = fileSize(response);
    _downloadOperation->setSize(size);
    _downloadOperation->setPartialDownloading(size != 0);
  }
  reportError(std::nullopt);
}

void DFDownloadOperationInfoLoader::didFailWithError(platform::URLConnection&, const std::string& error) {
  DCHECK_ON_MAIN();
  cancel();
  platform::log(error);
  reportError(error);
}

std::optional<std::string> DFDownloadOperationInfoLoader::filenameFromHeaders(const platform::HTTPURLResponse& response) {
  auto value = response.valueForHTTPHeaderField("Content-Disposition");
  if (!value) return std::nullopt;
  return DFFilenameFromContentDisposition(*value);
}

std::optional<std::string> DFDownloadOperationInfoLoader::filenameFromPath(const platform::HTTPURLResponse& response) {
  const std::string last = response.url().lastPathComponent();
  if (last.empty()) return std::nullopt;
  const std::string extension = DFLowercaseASCII(platform::pathExtension(last));
  if (extension.empty() || scriptExtensions().count(extension)) return std::nullopt;
  return last;
}

std::optional<std::string> DFDownloadOperationInfoLoader::filenameFromMIMEType(
    const platform::HTTPURLResponse& response) {
  if (response.MIMEType().empty()) return std::nullopt;
  auto extension = platform::preferredFilenameExtensionForMIMEType(response.MIMEType());
  if (!extension || extension->empty()) return std::nullopt;
  return "Unknown." + *extension;
}

int64_t DFDownloadOperationInfoLoader::fileSize(const platform::HTTPURLResponse& response) {
  auto value = response.valueForHTTPHeaderField("Content-Range");
  if (!value) return 0;
  auto range = DFParseContentRange(*value);
  if (!range || range->first != 1 || range->last != 1) return 0;
  return range->total;
}
