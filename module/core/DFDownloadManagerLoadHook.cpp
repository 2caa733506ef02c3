// The manager's class-load hook: runs when the host loads the module.
#include "module/core/DFDownloadManager.h"

namespace {

struct DFDownloadManagerLoadHook {
  DFDownloadManagerLoadHook() { DFDownloadManager::load(); }
} gDFDownloadManagerLoadHook;

}  // namespace
