// The record of one download: address, identity, byte positions, size, queue
// place, file names, active flag and retry date. Shared by reference and
// compared by identity; the manager's queue, a data loader and a row cell may
// hold the same instance. REQUIRES: used on the main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "module/platform/Clock.h"
#include "module/platform/KeyedArchive.h"
#include "module/platform/URL.h"

class DFDownloadOperation : public platform::Archivable {
  struct Passkey {};

 public:
  // A fresh record for `url`, with a new UUID as uniqueId and every other field
  // at its initial value. The URL is not checked.
  static std::shared_ptr<DFDownloadOperation> initWithURL(const platform::URL& url);

  // Reads the nine archived keys back. position is restored into actualPosition
  // too; retryDate is none. Returns null when the archive cannot be decoded.
  static std::shared_ptr<DFDownloadOperation> initWithCoder(platform::KeyedUnarchiver& coder);
  void encodeWithCoder(platform::KeyedArchiver& coder) const override;

  DFDownloadOperation(Passkey, platform::URL url, std::string uniqueId);
  DFDownloadOperation(const DFDownloadOperation&) = delete;
  DFDownloadOperation& operator=(const DFDownloadOperation&) = delete;

  bool active() const { return _active; }
  void setActive(bool active) { _active = active; }
  bool partialDownloading() const { return _partialDownloading; }
  void setPartialDownloading(bool partial) { _partialDownloading = partial; }
  const platform::URL& url() const { return _url; }
  const std::string& uniqueId() const { return _uniqueId; }
  int64_t position() const { return _position; }
  void setPosition(int64_t position) { _position = position; }
  int64_t actualPosition() const { return _actualPosition; }
  void setActualPosition(int64_t position) { _actualPosition = position; }
  int64_t size() const { return _size; }
  void setSize(int64_t size) { _size = size; }
  int64_t priority() const { return _priority; }
  void setPriority(int64_t priority) { _priority = priority; }
  const std::optional<std::string>& filename() const { return _filename; }
  void setFilename(std::optional<std::string> filename) { _filename = std::move(filename); }
  const std::optional<std::string>& outputFilename() const { return _outputFilename; }
  void setOutputFilename(std::optional<std::string> name) { _outputFilename = std::move(name); }
  const std::optional<platform::Date>& retryDate() const { return _retryDate; }
  void setRetryDate(std::optional<platform::Date> date) { _retryDate = date; }

 private:
  bool _active = false;
  bool _partialDownloading = false;
  const platform::URL _url;
  const std::string _uniqueId;
  int64_t _position = 0;
  int64_t _actualPosition = 0;
  int64_t _size = 0;  // 0 = unknown
  int64_t _priority = 0;
  std::optional<std::string> _filename;
  std::optional<std::string> _outputFilename;
  std::optional<platform::Date> _retryDate;
};
