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
  coder.encodeInt64(_position, "position");
  coder.encodeInt64(_priority, "priority");
  coder.encodeString(_filename, "filename");
  coder.encodeString(_outputFilename, "outputFilename");
  coder.encodeInt64(_size, "size");
  coder.encodeBool(_active, "active");
  coder.encodeBool(_partialDownloading, "partialDownloading");
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
  record->_position = position;
  record->_actualPosition = position;
  record->_priority = priority;
  record->_filename = std::move(filename);
  record->_outputFilename = std::move(outputFilename);
  record->_size = size;
  record->_active = active;
  record->_partialDownloading = partialDownloading;
  return record;
}
