#include "module/core/DFDownloadOperation.h"

#include "module/platform/UUID.h"

DFDownloadOperation::DFDownloadOperation(Passkey, platform::URL url, std::string uniqueId)
    : _url(std::move(url)), _uniqueId(std::move(uniqueId)) {}

std::shared_ptr<DFDownloadOperation> DFDownloadOperation::initWithURL(const platform::URL& url) {
  return std::make_shared<DFDownloadOperation>(Passkey{}, url, platform::newUUIDString());
}

void DFDownloadOperation::encodeWithCoder(platform::KeyedArchiver& coder) const {
  coder.encodeURL(_url, "url");
  coder.encodeString(_uniqueId, "uniqueId");
  coder.encodeInt64(position(), "position");
  coder.encodeInt64(priority(), "priority");
  coder.encodeString(_filename, "filename");
  coder.encodeString(_outputFilename, "outputFilename");
  coder.encodeInt64(size(), "size");
  coder.encodeBool(active(), "active");
  coder.encodeBool(partialDownloading(), "partialDownloading");
}

std::shared_ptr<DFDownloadOperation> DFDownloadOperation::initWithCoder(platform::KeyedUnarchiver& coder) {
  std::optional<platform::URL> url = coder.decodeURLForKey("url");
  std::optional<std::string> uniqueId = coder.decodeStringForKey("uniqueId");
  int64_t position = coder.decodeInt64ForKey("position");
  int64_t priority = coder.decodeInt64ForKey("priority");
  std::optional<std::string> filename = coder.decodeStringForKey("filename");
  std::optional<std::string> outputFilename = coder.decodeStringForKey("outputFilename");
  int64_t size = coder.decodeIntegerForKey("size");
  bool active = coder.decodeBoolForKey("active");
  bool partialDownloading = coder.decodeBoolForKey("partialDownloading");
  // A record without an address or identity cannot be scheduled or stored.
  if (coder.failed() || !url || !uniqueId || uniqueId->empty()) return nullptr;

  auto record = std::make_shared<DFDownloadOperation>(Passkey{}, std::move(*url), std::move(*uniqueId));
  record->setPosition(position);
  record->setActualPosition(position);
  record->setPriority(priority);
  record->setFilename(std::move(filename));
  record->setOutputFilename(std::move(outputFilename));
  record->setSize(size);
  record->setActive(active);
  record->setPartialDownloading(partialDownloading);
  return record;
}
