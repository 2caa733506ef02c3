// The kit's table screen: sections of rows, made into cells by overridable
// factory operations, with selection, animated row changes, a title and a
// toolbar. Cells are made for the rows the browser shows only, and reused.
// Subclasses override the cell-factory operations; the kit calls them.
// REQUIRES: main thread, for every call.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "module/platform/ui/BarButtonItem.h"
#include "module/platform/ui/TableViewCell.h"
#include "module/platform/ui/View.h"

namespace platform {

struct IndexPath {
  int64_t row = 0;
  int64_t section = 0;
  int64_t getRow() const { return row; }
  bool operator==(const IndexPath&) const = default;
};

class TableScreenController;

// The table's own settings.
class TableView {
 public:
  using CellFactory = std::function<std::shared_ptr<TableViewCell>(int64_t style, const std::string& reuseIdentifier)>;
  void setAllowsMultipleSelection(bool allows) { allowsMultipleSelection_ = allows; }
  bool allowsMultipleSelection() const { return allowsMultipleSelection_; }
  void setAllowsSelection(bool allows) { allowsSelection_ = allows; }
  bool allowsSelection() const { return allowsSelection_; }
  // The view under the last row (an empty view: no separators below the rows).
  void setTableFooterView(std::shared_ptr<View> view) { footer_ = std::move(view); }
  // Cells for `identifier` are made by `factory`.
  void registerClass(const std::string& identifier, CellFactory factory) { factories_[identifier] = std::move(factory); }

 private:
  friend class TableScreenController;
  bool allowsMultipleSelection_ = false;
  bool allowsSelection_ = true;
  std::shared_ptr<View> footer_;
  std::map<std::string, CellFactory> factories_;
};

class TableScreenController : public ViewHost, public std::enable_shared_from_this<TableScreenController> {
 public:
  static constexpr int64_t kStylePlain = 0;

  TableScreenController(std::vector<int64_t> sections, int64_t style);
  explicit TableScreenController(std::vector<int64_t> sections) : TableScreenController(std::move(sections), kStylePlain) {}
  ~TableScreenController() override;

  // --- For subclasses ---------------------------------------------------
  virtual void viewDidLoad() {}
  virtual int64_t numberOfRowsInSection(int64_t section) = 0;
  virtual double heightForRow(int64_t row, int64_t section);
  // Null for no cell.
  virtual std::shared_ptr<TableViewCell> createCellForRow(int64_t row, int64_t section) = 0;
  virtual void cellSelectedAtRow(int64_t /*row*/, int64_t /*section*/) {}
  virtual void cellDeselectedAtRow(int64_t /*row*/, int64_t /*section*/) {}
  // Stable names for the model objects behind rows, so that a selection can
  // be brought back after the host restarted: none by default.
  virtual std::optional<std::string> modelIdentifierForRow(int64_t /*row*/, int64_t /*section*/) { return std::nullopt; }
  virtual std::optional<IndexPath> indexPathForModelIdentifier(const std::string& /*identifier*/) { return std::nullopt; }

  TableView& tableView() { return tableView_; }
  void setTitle(const std::string& title);
  const std::string& title() const { return title_; }
  void setToolbarHidden(bool hidden);
  void setToolbarItems(std::vector<std::shared_ptr<BarButtonItem>> items);

  // Selected rows, in the order they were selected.
  std::vector<IndexPath> indexPathsForSelectedRows() const { return selection_; }
  void selectCellAtRow(int64_t row, int64_t section);
  void deselectCellAtRow(int64_t row, int64_t section);
  // Rows inserted at (ascending, after insertion) or deleted from (before deletion) these indexes.
  void insertRows(const std::vector<int64_t>& rows, int64_t section);
  void deleteRows(const std::vector<int64_t>& rows, int64_t section);
  void reloadData();
  // A reused cell of `identifier`, or a new one from its registered factory.
  std::shared_ptr<TableViewCell> dequeueCellWithIdentifier(const std::string& identifier);
  std::shared_ptr<SwitchCell> dequeueSwitchCell();
  std::shared_ptr<StepperCell> dequeueStepperCell();

  // --- The kit's side -----------------------------------------------------
  // Runs viewDidLoad and reads the rows; makes cells for the first rows.
  void loadView();
  bool isViewLoaded() const { return loaded_; }
  // The browser shows rows first..last of `section`: cells are made for them only.
  void setVisibleRows(int64_t section, int64_t first, int64_t last);
  // The user tapped a row.
  void userSelectRow(int64_t row, int64_t section, bool selected);
  // Selects, as taps would, the rows of these model identifiers that are
  // still there; only when nothing is selected yet.
  void restoreSelection(const std::vector<std::string>& identifiers);
  // A view of a shown cell or of the toolbar, or null.
  View* findView(uint64_t id);
  // The whole screen, and the changes since the last snapshot or patch.
  nlohmann::json snapshot();
  nlohmann::json takePatchOps();
  bool hasPendingChanges() const;
  // Called once when a change waits to be sent.
  void setChangeHandler(std::function<void()> handler) { changeHandler_ = std::move(handler); }
  // Cells made so far (created, not reused).
  int64_t cellsCreated() const { return cellsCreated_; }
  int64_t rowCount(int64_t section) const;
  std::shared_ptr<TableViewCell> cellAtRow(int64_t row, int64_t section) const;

  void viewChanged(View& view, bool structural) override;

 private:
  struct Section {
    int64_t number = 0;
    std::vector<double> heights;
    std::map<int64_t, std::shared_ptr<TableViewCell>> cells;  // by row: the cells shown
    int64_t first = 0, last = kInitialRows - 1;                // rows the browser shows
  };
  struct PendingCell {
    int64_t section, row;
    std::weak_ptr<TableViewCell> cell;
  };
  static constexpr int64_t kInitialRows = 20;
  static constexpr int64_t kOverscan = 2;
  static constexpr int64_t kMaxVisibleRows = 200;

  Section* findSection(int64_t number);
  void readRows(Section& section);
  void reconcileCells(Section& section);
  void recycle(const std::shared_ptr<TableViewCell>& cell);
  void enqueue(nlohmann::json op);
  void noteChange();
  nlohmann::json heightsOf(const Section& section) const;
  nlohmann::json toolbarNode() const;
  nlohmann::json selectionNode() const;
  nlohmann::json selectionKeysNode();

  std::vector<Section> sections_;
  const int64_t style_;
  TableView tableView_;
  std::string title_;
  bool toolbarHidden_ = true;
  std::vector<std::shared_ptr<BarButtonItem>> toolbarItems_;
  std::vector<IndexPath> selection_;
  std::multimap<std::string, std::shared_ptr<TableViewCell>> reusePool_;
  bool loaded_ = false;
  int64_t cellsCreated_ = 0;

  // Changes waiting for the next patch.
  std::vector<std::variant<nlohmann::json, PendingCell>> pending_;
  std::vector<std::weak_ptr<View>> dirtyViews_;
  std::set<uint64_t> dirtyIds_;
  bool selectionChanged_ = false, titleChanged_ = false, toolbarChanged_ = false;
  std::function<void()> changeHandler_;
  bool changeNoted_ = false;
};

}  // namespace platform
