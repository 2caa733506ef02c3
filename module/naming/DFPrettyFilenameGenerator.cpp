#include "module/naming/DFPrettyFilenameGenerator.h"

#include <mutex>

#include "module/platform/MainQueue.h"
#include "module/platform/MediaLibraryProbe.h"
#include "module/platform/Text.h"
#include "module/probe/DFFilenameRules.h"

namespace {

// Tag reads wait on the network; several may run side by side.
constexpr std::size_t kConcurrentReads = 4;

}  // namespace

const std::unordered_set<std::string>& DFPrettyFilenameGenerator::audioFileExtensions() {
  static const std::unordered_set<std::string> set = {
      "3ga", "669", "a52", "aac", "ac3", "au",  "adt", "adts", "aif", "aifc", "aiff", "amr", "aob",
      "ape", "awb", "caf", "dts", "flac", "it", "kar", "m4a", "m4p", "m5p", "mid", "mka",  "mlp",
      "mod", "mpa", "mp1", "mp2", "mp3", "mpc", "mpga", "oga", "ogg", "oma", "opus", "qcp", "ra",
      "rmi", "s3m", "spx", "thd", "tta", "voc", "vqf", "w64", "wav", "wma", "wv",   "xa",  "xm",
  };
  return set;
}

namespace {

std::shared_ptr<DFPrettyFilenameGenerator>& generatorForTesting() {
  static std::shared_ptr<DFPrettyFilenameGenerator> generator;
  return generator;
}

}  // namespace

void DFPrettyFilenameGenerator::setSharedInstanceForTesting(std::shared_ptr<DFPrettyFilenameGenerator> generator) {
  generatorForTesting() = std::move(generator);
}

std::shared_ptr<DFPrettyFilenameGenerator> DFPrettyFilenameGenerator::sharedInstance() {
  if (auto& generator = generatorForTesting()) return generator;
  // The media library is loaded when tags are first read, not by every
  // probe that asks for the generator.
  if (!platform::MediaLibraryProbe::isPresent()) return nullptr;
  static std::once_flag once;
  static std::shared_ptr<DFPrettyFilenameGenerator>* instance = nullptr;  // lives as long as the process
  std::call_once(once, [] {
    instance = new std::shared_ptr<DFPrettyFilenameGenerator>(
        std::make_shared<DFPrettyFilenameGenerator>([](const std::string& url) -> std::optional<DFAudioTags> {
          const DFMediaLibrary* library = DFMediaLibrary::shared();
          return library ? library->readAudioTags(url) : std::nullopt;
        }));
  });
  return *instance;
}

DFPrettyFilenameGenerator::DFPrettyFilenameGenerator(TagReader readTags)
    : _operationQueue(platform::OperationQueue::create(kConcurrentReads)),
      _audioFileExtensions(audioFileExtensions()),
      _readTags(std::move(readTags)) {}

bool DFPrettyFilenameGenerator::canGeneratePrettyFilename(const std::string& filename) const {
  const std::string extension = DFLowercaseASCII(platform::pathExtension(filename));
  return !extension.empty() && _audioFileExtensions.count(extension);
}

void DFPrettyFilenameGenerator::generatePrettyFilenameForURL(const platform::URL& url, const std::string& filename,
                                                             std::function<void(const std::string&)> completionBlock) {
  if (!canGeneratePrettyFilename(filename)) {
    completionBlock(filename);
    return;
  }
  auto deliver = [completionBlock](std::string name) {
    platform::dispatchAsyncMain([completionBlock, name = std::move(name)] { completionBlock(name); });
  };
  _operationQueue->addOperation([readTags = _readTags, address = url.absoluteString(), filename, deliver] {
    std::optional<DFAudioTags> tags = readTags(address);
    if (!tags || !tags->title || tags->title->empty() || !platform::isValidUTF8(*tags->title)) {
      deliver(filename);
      return;
    }
    std::optional<std::string> artist = tags->artist;
    if (artist && !platform::isValidUTF8(*artist)) artist.reset();
    const std::string extension = DFLowercaseASCII(platform::pathExtension(filename));
    deliver(artist && !artist->empty() ? *artist + " - " + *tags->title + "." + extension
                                       : *tags->title + "." + extension);
  });
}
