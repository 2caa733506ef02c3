#include "shelf/host/HostScreens.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>

#include "module/platform/DownloadService.h"
#include "module/platform/Localization.h"
#include "module/platform/MainQueue.h"
#include "module/platform/RecentItems.h"
#include "module/platform/ui/Appearance.h"
#include "module/platform/ui/Formatting.h"
#include "module/platform/ui/Registries.h"
#include "module/platform/Presenters.h"
#include "module/platform/ui/AlertDialog.h"
#include "shelf/host/DocumentFiles.h"
#include "shelf/host/FileResolver.h"
#include "shelfkit/kits/ui/Button.h"
#include "shelf/server/PercentEncoding.h"

namespace fs = std::filesystem;

namespace shelf {
namespace {

std::shared_ptr<HostScreenContext>& context() {
  static auto* shared = new std::shared_ptr<HostScreenContext>();  // main thread only
  return *shared;
}

std::string hostText(const char* english) { return platform::localizedString("shelf", english); }

// A row with a name, a detail line, "Open" and "Save" links and, for a file
// the user may manage, "Rename" and "Delete" buttons.
class FileCell : public platform::TableViewCell {
 public:
  explicit FileCell(bool manageable) : TableViewCell(0, manageable ? "ShelfDocumentCell" : "ShelfFileCell") {
    setSelectedBackgroundView(std::make_shared<platform::SelectedBackgroundView>());
    auto column = std::make_shared<platform::View>();
    name_ = std::make_shared<platform::LargeTitleLabel>();
    detail_ = std::make_shared<platform::SmallDetailLabel>();
    column->addFillHeightSubivews({platform::View::spacer(), name_, platform::View::spacer(), detail_, platform::View::spacer()});
    open_ = std::make_shared<platform::Link>(hostText("Open"), "", false);
    save_ = std::make_shared<platform::Link>(hostText("Save"), "", true);
    std::vector<std::shared_ptr<platform::View>> views = {platform::View::spacerWithSize(15), column, open_,
                                                          platform::View::spacerWithSize(12), save_};
    if (manageable) {
      rename_ = std::make_shared<shelfkit::Button>(hostText("Rename"));
      delete_ = std::make_shared<shelfkit::Button>(hostText("Delete"));
      views.insert(views.end(), {platform::View::spacerWithSize(12), rename_, platform::View::spacerWithSize(8), delete_});
    }
    views.push_back(platform::View::spacerWithSize(15));
    contentView()->addFillWidthSubviews(views);
  }

  void show(const std::string& name, const std::string& detail, const std::string& url) {
    name_->setText(name);
    detail_->setText(detail);
    open_->setHref(url);
    save_->setHref(url.empty() ? "" : url + "?download=1");
    open_->setHidden(url.empty());
    save_->setHidden(url.empty());
  }

  // The buttons act on the file the row shows now (cells are reused).
  void setActions(const std::string& name, std::function<void()> rename, std::function<void()> remove) {
    if (!rename_) return;
    rename_->setAccessibilityLabel(hostText("Rename") + " " + name);
    delete_->setAccessibilityLabel(hostText("Delete") + " " + name);
    rename_->setAction(std::move(rename));
    delete_->setAction(std::move(remove));
  }

 private:
  std::shared_ptr<platform::LargeTitleLabel> name_;
  std::shared_ptr<platform::SmallDetailLabel> detail_;
  std::shared_ptr<platform::Link> open_, save_;
  std::shared_ptr<shelfkit::Button> rename_, delete_;
};

struct FileRow {
  std::string name, detail, url;
};

// Reloads a file list when a download leaves the queue (its file was just placed).
class ReloadOnPlacement : public platform::DownloadServiceObserver {
 public:
  explicit ReloadOnPlacement(std::function<void()> reload) : reload_(std::move(reload)) {}
  void downloadServiceEvent(platform::DownloadEvent event, const platform::DownloadItem&) override {
    // The recent items learn of the file right after the removal.
    if (event == platform::DownloadEvent::Removed) platform::dispatchAsyncMain(reload_);
  }

 private:
  std::function<void()> reload_;
};

class FileListController;

// The file lists on screen, reloaded when the host changes the documents folder.
std::vector<std::weak_ptr<FileListController>>& liveLists() {
  static auto* lists = new std::vector<std::weak_ptr<FileListController>>();  // main thread only
  return *lists;
}

// A plain list of files, kept current; tapping a row opens its file.
class FileListController : public platform::TableScreenController {
 public:
  explicit FileListController(bool manageable = false) : TableScreenController({0}), manageable_(manageable) {}

  void viewDidLoad() override {
    const bool manageable = manageable_;
    tableView().registerClass(cellIdentifier(),
                              [manageable](int64_t, const std::string&) { return std::make_shared<FileCell>(manageable); });
    rows_ = readRows();
    std::weak_ptr<TableScreenController> weak = weak_from_this();
    observer_ = std::make_shared<ReloadOnPlacement>([weak] {
      if (auto self = std::static_pointer_cast<FileListController>(weak.lock())) self->reload();
    });
    if (auto service = platform::DownloadService::sharedInstance()) service->addObserver(observer_);
    auto& lists = liveLists();
    std::erase_if(lists, [](const auto& list) { return list.expired(); });
    lists.push_back(std::static_pointer_cast<FileListController>(shared_from_this()));
  }
  void reload() {
    rows_ = readRows();
    reloadData();
  }
  int64_t numberOfRowsInSection(int64_t) override { return static_cast<int64_t>(rows_.size()); }
  double heightForRow(int64_t, int64_t) override { return 56.0; }
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t) override {
    auto cell = std::static_pointer_cast<FileCell>(dequeueCellWithIdentifier(cellIdentifier()));
    const auto& file = rows_.at(static_cast<size_t>(row));
    cell->show(file.name, file.detail, file.url);
    if (manageable_) {
      std::weak_ptr<TableScreenController> weak = weak_from_this();
      auto act = [weak, name = file.name](void (FileListController::*action)(const std::string&)) {
        return [weak, name, action] {
          if (auto self = std::static_pointer_cast<FileListController>(weak.lock())) ((*self).*action)(name);
        };
      };
      cell->setActions(file.name, act(&FileListController::askRename), act(&FileListController::askDelete));
    }
    return cell;
  }
  void cellSelectedAtRow(int64_t row, int64_t section) override {
    deselectCellAtRow(row, section);
    const auto& file = rows_.at(static_cast<size_t>(row));
    if (!file.url.empty() && context() && context()->open) context()->open(file.url, false);
  }

 protected:
  virtual std::vector<FileRow> readRows() = 0;
  std::vector<FileRow> rows_;
  std::shared_ptr<ReloadOnPlacement> observer_;

 private:
  std::string cellIdentifier() const { return manageable_ ? "ShelfDocumentCell" : "ShelfFileCell"; }

  void askDelete(const std::string& name) {
    platform::AlertDialog::showConfirmDialogWithTitle(
        hostText("Delete") + " \u201C" + name + "\u201D?", hostText("The file is removed from the Documents folder."),
        hostText("Delete"), [name](bool confirmed) {
          if (!confirmed || !context()) return;
          report(DocumentFiles(context()->documentsDirectory).remove(name));
        });
  }

  void askRename(const std::string& name) {
    platform::AlertDialog::Request request;
    request.kind = platform::AlertDialog::Request::Kind::Input;
    request.title = hostText("Rename") + " \u201C" + name + "\u201D";
    request.placeholder = name;
    request.value = name;
    request.okButtonTitle = hostText("Rename");
    platform::AlertDialog::showRequest(request, [name](bool ok, const std::string& newName) {
      if (!ok || !context()) return;
      report(DocumentFiles(context()->documentsDirectory).rename(name, newName));
    });
  }

  static void report(const std::optional<DocumentError>& error) {
    if (error) platform::ProgressOverlay::showAlert(error->message);
    documentsChanged();
  }

  const bool manageable_;
};

std::string detailOf(const fs::path& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return "";
  char when[32];
  std::tm local{};
  localtime_r(&info.st_mtime, &local);
  std::strftime(when, sizeof when, "%Y-%m-%d %H:%M", &local);
  return platform::fileSizeString(info.st_size) + " · " + when;
}

// The file of the documents folder that `path` names, when the server would
// send it; only such a file is shown with its size, date and address.
std::optional<std::string> servedDocument(const fs::path& path) {
  const fs::path relative = path.lexically_relative(context()->documentsDirectory);
  if (relative.empty() || *relative.begin() == "..") return std::nullopt;
  return FileResolver::documentInside(context()->documentsDirectory, relative.string());
}

class DocumentsController : public FileListController {
 public:
  DocumentsController() : FileListController(true) { setTitle(hostText("Documents")); }

 protected:
  std::vector<FileRow> readRows() override {
    std::vector<std::pair<fs::file_time_type, fs::path>> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(context()->documentsDirectory, error)) {
      // An entry leading out of the folder, or a second name of a file, is not listed at all.
      auto file = servedDocument(entry.path());
      if (!file) continue;
      files.emplace_back(fs::last_write_time(*file, error), entry.path());
    }
    std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) { return a.first > b.first; });  // newest first
    std::vector<FileRow> rows;
    for (const auto& [time, path] : files)
      rows.push_back({path.filename().string(), detailOf(path), documentURLForPath(context()->documentsDirectory, path.string())});
    return rows;
  }
};

class RecentController : public FileListController {
 public:
  RecentController() { setTitle(hostText("Recent")); }

 protected:
  std::vector<FileRow> readRows() override {
    std::vector<FileRow> rows;
    for (const auto& source : platform::RecentItemsRegistry::sharedInstance()->sources())
      for (const auto& item : source->items()) {
        const std::string name = fs::path(item.path).filename().string();
        if (!servedDocument(item.path)) {
          rows.push_back({name, source->title(), ""});
          continue;
        }
        rows.push_back({name, source->title() + " · " + detailOf(item.path),
                        documentURLForPath(context()->documentsDirectory, item.path)});
      }
    return rows;
  }
};

// The settings pages of the host's modules; tapping one opens it.
class SettingsController : public platform::TableScreenController {
 public:
  SettingsController() : TableScreenController({0}) { setTitle(hostText("Settings")); }

  void viewDidLoad() override {
    entries_ = platform::SettingsRegistry::sharedInstance()->settingItems();
    tableView().registerClass("ShelfSettingCell", [](int64_t, const std::string&) {
      auto cell = std::make_shared<platform::TableViewCell>(0, "ShelfSettingCell");
      cell->setSelectedBackgroundView(std::make_shared<platform::SelectedBackgroundView>());
      cell->contentView()->addFillWidthSubviews({platform::View::spacerWithSize(15), std::make_shared<platform::Label>()});
      return cell;
    });
  }
  int64_t numberOfRowsInSection(int64_t) override { return static_cast<int64_t>(entries_.size()); }
  std::shared_ptr<platform::TableViewCell> createCellForRow(int64_t row, int64_t) override {
    auto cell = dequeueCellWithIdentifier("ShelfSettingCell");
    auto& label = static_cast<platform::Label&>(*cell->contentView()->subviews().back());
    label.setText(entries_.at(static_cast<size_t>(row))->title());
    return cell;
  }
  void cellSelectedAtRow(int64_t row, int64_t section) override {
    deselectCellAtRow(row, section);
    const auto& controllerClass = entries_.at(static_cast<size_t>(row))->controllerClass();
    if (controllerClass.create && context() && context()->push) context()->push(controllerClass.create());
  }

 private:
  std::vector<std::shared_ptr<platform::SettingEntry>> entries_;
};

}  // namespace

std::optional<int64_t> settingsMenuIndex() {
  int64_t index = 0;
  for (const auto& entry : platform::SideMenuRegistry::sharedInstance()->menuItems()) {
    if (entry->iconBundle() == kHostBundleIdentifier && entry->iconName() == "Settings") return index;
    ++index;
  }
  return std::nullopt;
}

nlohmann::json finishedFiles(const std::vector<std::string>& paths, const std::string& documentsDirectory) {
  nlohmann::json files = nlohmann::json::array();
  for (const auto& path : paths) {
    const fs::path relative = fs::path(path).lexically_relative(documentsDirectory);
    if (relative.empty() || *relative.begin() == ".." || !FileResolver::documentInside(documentsDirectory, relative.string()))
      continue;  // renamed, deleted, or never a file of the folder
    const std::string url = documentURLForPath(documentsDirectory, path);
    if (url.empty()) continue;
    files.push_back({{"name", fs::path(path).filename().string()}, {"url", url}, {"save", url + "?download=1"}});
    if (files.size() == kMaxFinishedFiles) break;
  }
  return files;
}

void documentsChanged() {
  DCHECK_ON_MAIN();
  auto lists = liveLists();  // a reload may open or close screens
  for (const auto& weak : lists)
    if (auto list = weak.lock()) list->reload();
}

std::string documentURLForPath(const std::string& documentsDirectory, const std::string& path) {
  std::error_code error;
  const fs::path base = fs::weakly_canonical(documentsDirectory, error);
  const fs::path file = fs::weakly_canonical(path, error);
  if (error) return "";
  const fs::path relative = file.lexically_relative(base);
  if (relative.empty() || *relative.begin() == "..") return "";
  std::string url = "/documents";
  for (const auto& part : relative) url += "/" + percentEncode(part.string());
  return url;
}

void registerHostScreens(HostScreenContext screenContext) {
  context() = std::make_shared<HostScreenContext>(std::move(screenContext));
  auto registry = platform::SideMenuRegistry::sharedInstance();
  registry->addMenuItem(std::make_shared<platform::SideMenuEntry>(
      hostText("Documents"), "Documents", kHostBundleIdentifier,
      platform::ControllerClass::of<DocumentsController>("DocumentsController"), 0, 100));
  registry->addMenuItem(std::make_shared<platform::SideMenuEntry>(
      hostText("Recent"), "Recent", kHostBundleIdentifier, platform::ControllerClass::of<RecentController>("RecentController"),
      0, 90));
  registry->addMenuItem(std::make_shared<platform::SideMenuEntry>(
      hostText("Settings"), "Settings", kHostBundleIdentifier,
      platform::ControllerClass::of<SettingsController>("SettingsController"), 0, -100));
}

}  // namespace shelf
