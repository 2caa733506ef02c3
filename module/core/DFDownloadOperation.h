// The record of one download: address, identity, byte positions, size, queue
// place, file names, active flag and retry date. Shared by reference and
// compared by identity; the manager's queue, a data loader and a row cell may
// hold the same instance. The counters and flags may be written by a data
// loader's queue while the main thread reads them; the names and the retry
// date belong to the main thread.
#pragma once

#include <atomic>
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

  bool active() const { return _active.load(kOrder); }
  void setActive(bool active) { changed(_active.exchange(active, kOrder) != active); }
  bool partialDownloading() const { return _partialDownloading.load(kOrder); }
  void setPartialDownloading(bool partial) { changed(_partialDownloading.exchange(partial, kOrder) != partial); }
  const platform::URL& url() const { return _url; }
  const std::string& uniqueId() const { return _uniqueId; }
  int64_t position() const { return _position.load(kOrder); }
  void setPosition(int64_t position) { changed(_position.exchange(position, kOrder) != position); }
  int64_t actualPosition() const { return _actualPosition.load(kOrder); }
  void setActualPosition(int64_t position) { _actualPosition.store(position, kOrder); }
  int64_t size() const { return _size.load(kOrder); }
  void setSize(int64_t size) { changed(_size.exchange(size, kOrder) != size); }
  int64_t priority() const { return _priority.load(kOrder); }
  void setPriority(int64_t priority) { changed(_priority.exchange(priority, kOrder) != priority); }
  const std::optional<std::string>& filename() const { return _filename; }
  void setFilename(std::optional<std::string> filename) {
    changed(_filename != filename);
    _filename = std::move(filename);
  }
  const std::optional<std::string>& outputFilename() const { return _outputFilename; }
  void setOutputFilename(std::optional<std::string> name) {
    changed(_outputFilename != name);
    _outputFilename = std::move(name);
  }
  const std::optional<platform::Date>& retryDate() const { return _retryDate; }
  void setRetryDate(std::optional<platform::Date> date) { _retryDate = date; }

  // Counts changes to the archived fields. A store that remembers the count
  // it wrote knows whether its copy is current (storedArchiveVersion).
  uint64_t archiveVersion() const { return _archiveVersion.load(kOrder); }
  std::optional<uint64_t> storedArchiveVersion() const { return _storedArchiveVersion; }
  void setStoredArchiveVersion(uint64_t version) { _storedArchiveVersion = version; }

 private:
  static constexpr auto kOrder = std::memory_order_relaxed;
  std::atomic<bool> _active = false;
  std::atomic<bool> _partialDownloading = false;
  const platform::URL _url;
  const std::string _uniqueId;
  std::atomic<int64_t> _position = 0;
  std::atomic<int64_t> _actualPosition = 0;
  std::atomic<int64_t> _size = 0;  // 0 = unknown
  std::atomic<int64_t> _priority = 0;
  std::optional<std::string> _filename;
  std::optional<std::string> _outputFilename;
  std::optional<platform::Date> _retryDate;
  std::atomic<uint64_t> _archiveVersion = 0;
  std::optional<uint64_t> _storedArchiveVersion;  // main thread only

  void changed(bool yes) {
    if (yes) _archiveVersion.fetch_add(1, kOrder);
  }
};
