#include "module/platform/ui/TableScreenController.h"

#include <algorithm>
#include <limits>

#include "module/platform/Log.h"
#include "module/platform/MainQueue.h"

namespace platform {

TableScreenController::TableScreenController(std::vector<int64_t> sections, int64_t style) : style_(style) {
  for (int64_t number : sections) {
    sections_.emplace_back();
    sections_.back().number = number;
  }
}

TableScreenController::~TableScreenController() = default;

double TableScreenController::heightForRow(int64_t, int64_t) { return 44.0; }

TableScreenController::Section* TableScreenController::findSection(int64_t number) {
  for (auto& section : sections_)
    if (section.number == number) return &section;
  return nullptr;
}

int64_t TableScreenController::rowCount(int64_t section) const {
  for (const auto& s : sections_)
    if (s.number == section) return static_cast<int64_t>(s.heights.size());
  return 0;
}

std::shared_ptr<TableViewCell> TableScreenController::cellAtRow(int64_t row, int64_t section) const {
  for (const auto& s : sections_) {
    if (s.number != section) continue;
    auto found = s.cells.find(row);
    return found == s.cells.end() ? nullptr : found->second;
  }
  return nullptr;
}

void TableScreenController::setTitle(const std::string& title) {
  if (title == title_) return;
  title_ = title;
  titleChanged_ = true;
  noteChange();
}

void TableScreenController::setToolbarHidden(bool hidden) {
  toolbarHidden_ = hidden;
  toolbarChanged_ = true;
  noteChange();
}

void TableScreenController::setToolbarItems(std::vector<std::shared_ptr<BarButtonItem>> items) {
  toolbarItems_ = std::move(items);
  for (const auto& item : toolbarItems_) item->setHost(weak_from_this());
  toolbarChanged_ = true;
  noteChange();
}

// --- Loading and cells ------------------------------------------------------

void TableScreenController::loadView() {
  DCHECK_ON_MAIN();
  if (loaded_) return;
  loaded_ = true;
  viewDidLoad();
  for (auto& section : sections_) {
    readRows(section);
    reconcileCells(section);
  }
}

void TableScreenController::readRows(Section& section) {
  const int64_t count = std::max<int64_t>(0, numberOfRowsInSection(section.number));
  section.heights.resize(static_cast<size_t>(count));
  for (int64_t row = 0; row < count; ++row) section.heights[static_cast<size_t>(row)] = heightForRow(row, section.number);
}

void TableScreenController::reconcileCells(Section& section) {
  const int64_t count = static_cast<int64_t>(section.heights.size());
  const int64_t lo = std::max<int64_t>(0, section.first - kOverscan);
  const int64_t hi = std::min<int64_t>(count - 1, section.last + kOverscan);
  std::vector<int64_t> dropped;
  for (auto it = section.cells.begin(); it != section.cells.end();) {
    if (it->first >= lo && it->first <= hi) {
      ++it;
      continue;
    }
    dropped.push_back(it->first);
    recycle(it->second);
    it = section.cells.erase(it);
  }
  if (!dropped.empty()) enqueue({{"op", "dropCells"}, {"section", section.number}, {"rows", dropped}});
  for (int64_t row = lo; row <= hi; ++row) {
    if (section.cells.count(row)) continue;
    auto cell = createCellForRow(row, section.number);
    if (!cell) continue;
    cell->setHost(weak_from_this());
    section.cells[row] = cell;
    pending_.push_back(PendingCell{section.number, row, cell});
    noteChange();
  }
}

void TableScreenController::recycle(const std::shared_ptr<TableViewCell>& cell) {
  reusePool_.emplace(cell->reuseIdentifier(), cell);
}

std::shared_ptr<TableViewCell> TableScreenController::dequeueCellWithIdentifier(const std::string& identifier) {
  DCHECK_ON_MAIN();
  if (auto found = reusePool_.find(identifier); found != reusePool_.end()) {
    auto cell = found->second;
    reusePool_.erase(found);
    return cell;
  }
  auto factory = tableView_.factories_.find(identifier);
  if (factory == tableView_.factories_.end()) {
    log("No cell class is registered for \"" + identifier + "\"");
    return nullptr;
  }
  ++cellsCreated_;
  return factory->second(style_, identifier);
}

namespace {

template <class Cell>
std::shared_ptr<Cell> dequeueStock(std::multimap<std::string, std::shared_ptr<TableViewCell>>& pool,
                                   const std::string& identifier, int64_t& created) {
  if (auto found = pool.find(identifier); found != pool.end()) {
    auto cell = std::static_pointer_cast<Cell>(found->second);
    pool.erase(found);
    return cell;
  }
  ++created;
  return std::make_shared<Cell>();
}

}  // namespace

std::shared_ptr<SwitchCell> TableScreenController::dequeueSwitchCell() {
  return dequeueStock<SwitchCell>(reusePool_, "SwitchCell", cellsCreated_);
}

std::shared_ptr<StepperCell> TableScreenController::dequeueStepperCell() {
  return dequeueStock<StepperCell>(reusePool_, "StepperCell", cellsCreated_);
}

void TableScreenController::setVisibleRows(int64_t number, int64_t first, int64_t last) {
  DCHECK_ON_MAIN();
  Section* section = findSection(number);
  if (!section || !loaded_) return;
  // Far enough from the end of int64_t that first + kMaxVisibleRows + kOverscan cannot overflow.
  constexpr int64_t kHighestFirst = std::numeric_limits<int64_t>::max() / 2;
  section->first = std::clamp<int64_t>(first, 0, kHighestFirst);
  // A browser shows tens of rows; a larger range is cut, so a client cannot make thousands of cells.
  section->last = std::clamp(last, section->first, section->first + kMaxVisibleRows);
  reconcileCells(*section);
}

// --- Selection ------------------------------------------------------------

void TableScreenController::selectCellAtRow(int64_t row, int64_t section) {
  DCHECK_ON_MAIN();
  if (row < 0 || row >= rowCount(section)) return;
  const IndexPath path{row, section};
  if (std::find(selection_.begin(), selection_.end(), path) != selection_.end()) return;
  if (!tableView_.allowsMultipleSelection_) selection_.clear();
  selection_.push_back(path);
  selectionChanged_ = true;
  noteChange();
}

void TableScreenController::deselectCellAtRow(int64_t row, int64_t section) {
  DCHECK_ON_MAIN();
  if (std::erase(selection_, IndexPath{row, section}) == 0) return;
  selectionChanged_ = true;
  noteChange();
}

void TableScreenController::userSelectRow(int64_t row, int64_t section, bool selected) {
  DCHECK_ON_MAIN();
  selectionChanged_ = true;  // the browser hears the outcome even when nothing changes
  noteChange();
  if (!tableView_.allowsSelection_ || row < 0 || row >= rowCount(section)) return;
  const IndexPath path{row, section};
  const bool wasSelected = std::find(selection_.begin(), selection_.end(), path) != selection_.end();
  if (selected == wasSelected) return;
  if (!selected) {
    std::erase(selection_, path);
    cellDeselectedAtRow(row, section);
    return;
  }
  if (!tableView_.allowsMultipleSelection_) {
    auto previous = selection_;
    selection_.clear();
    for (const auto& old : previous) cellDeselectedAtRow(old.row, old.section);
  }
  selection_.push_back(path);
  cellSelectedAtRow(row, section);
}

void TableScreenController::restoreSelection(const std::vector<std::string>& identifiers) {
  DCHECK_ON_MAIN();
  if (!selection_.empty()) return;
  for (const auto& identifier : identifiers) {
    const auto path = indexPathForModelIdentifier(identifier);
    if (path) userSelectRow(path->row, path->section, true);
  }
}

// --- Row changes ----------------------------------------------------------

void TableScreenController::insertRows(const std::vector<int64_t>& rows, int64_t number) {
  DCHECK_ON_MAIN();
  Section* section = findSection(number);
  if (!section || !loaded_ || rows.empty()) return;
  std::vector<int64_t> sorted = rows;
  std::sort(sorted.begin(), sorted.end());
  nlohmann::json heights = nlohmann::json::array();
  std::vector<int64_t> inserted;
  for (int64_t row : sorted) {
    row = std::clamp<int64_t>(row, 0, static_cast<int64_t>(section->heights.size()));
    std::map<int64_t, std::shared_ptr<TableViewCell>> shifted;
    for (auto& [r, cell] : section->cells) shifted[r >= row ? r + 1 : r] = std::move(cell);
    section->cells = std::move(shifted);
    for (auto& path : selection_)
      if (path.section == number && path.row >= row) ++path.row;
    const double height = heightForRow(row, number);
    section->heights.insert(section->heights.begin() + row, height);
    heights.push_back(height);
    inserted.push_back(row);
  }
  enqueue({{"op", "insertRows"}, {"section", number}, {"rows", inserted}, {"heights", heights}});
  selectionChanged_ = true;
  reconcileCells(*section);
}

void TableScreenController::deleteRows(const std::vector<int64_t>& rows, int64_t number) {
  DCHECK_ON_MAIN();
  Section* section = findSection(number);
  if (!section || !loaded_ || rows.empty()) return;
  std::vector<int64_t> sorted = rows;
  std::sort(sorted.begin(), sorted.end());
  sorted.erase(std::unique(sorted.begin(), sorted.end()), sorted.end());
  std::erase_if(sorted, [&](int64_t r) { return r < 0 || r >= static_cast<int64_t>(section->heights.size()); });
  if (sorted.empty()) return;
  for (auto it = sorted.rbegin(); it != sorted.rend(); ++it) {
    const int64_t row = *it;
    std::map<int64_t, std::shared_ptr<TableViewCell>> shifted;
    for (auto& [r, cell] : section->cells) {
      if (r == row)
        recycle(cell);
      else
        shifted[r > row ? r - 1 : r] = std::move(cell);
    }
    section->cells = std::move(shifted);
    std::erase(selection_, IndexPath{row, number});
    for (auto& path : selection_)
      if (path.section == number && path.row > row) --path.row;
    section->heights.erase(section->heights.begin() + row);
  }
  enqueue({{"op", "deleteRows"}, {"section", number}, {"rows", sorted}});
  selectionChanged_ = true;
  reconcileCells(*section);
}

void TableScreenController::reloadData() {
  DCHECK_ON_MAIN();
  if (!loaded_) return;
  for (auto& section : sections_) {
    for (auto& [row, cell] : section.cells) recycle(cell);
    section.cells.clear();
    readRows(section);
    std::erase_if(selection_, [&](const IndexPath& p) {
      return p.section == section.number && p.row >= static_cast<int64_t>(section.heights.size());
    });
    enqueue({{"op", "reload"}, {"section", section.number}, {"heights", heightsOf(section)}});
    reconcileCells(section);
  }
  selectionChanged_ = true;
}

// --- Updates to the browser -------------------------------------------------

void TableScreenController::enqueue(nlohmann::json op) {
  pending_.push_back(std::move(op));
  noteChange();
}

void TableScreenController::noteChange() {
  if (changeNoted_ || !loaded_) return;
  changeNoted_ = true;
  if (changeHandler_) changeHandler_();
}

bool TableScreenController::hasPendingChanges() const {
  return !pending_.empty() || !dirtyIds_.empty() || selectionChanged_ || titleChanged_ || toolbarChanged_;
}

void TableScreenController::viewChanged(View& view, bool structural) {
  View& root = view.rootView();
  if (structural) {
    // A cell whose subviews changed is sent again whole.
    for (auto& section : sections_)
      for (auto& [row, cell] : section.cells)
        if (cell.get() == &root) pending_.push_back(PendingCell{section.number, row, cell});
    for (const auto& item : toolbarItems_)
      if (item.get() == &root) toolbarChanged_ = true;
  } else {
    dirtyIds_.insert(view.viewId());
  }
  noteChange();
}

View* TableScreenController::findView(uint64_t id) {
  for (const auto& item : toolbarItems_)
    if (View* found = item->findView(id)) return found;
  for (auto& section : sections_)
    for (auto& [row, cell] : section.cells)
      if (View* found = cell->findView(id)) return found;
  return nullptr;
}

nlohmann::json TableScreenController::heightsOf(const Section& section) const {
  nlohmann::json runs = nlohmann::json::array();
  for (size_t i = 0; i < section.heights.size();) {
    size_t j = i;
    while (j < section.heights.size() && section.heights[j] == section.heights[i]) ++j;
    runs.push_back({section.heights[i], j - i});
    i = j;
  }
  return runs;
}

nlohmann::json TableScreenController::toolbarNode() const {
  if (toolbarHidden_ || toolbarItems_.empty()) return nullptr;
  nlohmann::json items = nlohmann::json::array();
  for (const auto& item : toolbarItems_) items.push_back(item->node());
  return items;
}

nlohmann::json TableScreenController::selectionNode() const {
  nlohmann::json rows = nlohmann::json::array();
  for (const auto& path : selection_) rows.push_back({path.section, path.row});
  return rows;
}

nlohmann::json TableScreenController::selectionKeysNode() {
  nlohmann::json keys = nlohmann::json::array();
  for (const auto& path : selection_)
    if (auto key = modelIdentifierForRow(path.row, path.section)) keys.push_back(std::move(*key));
  return keys;
}

namespace {

void collect(View& view, std::map<uint64_t, View*>& views) {
  views[view.viewId()] = &view;
  for (const auto& child : view.subviews()) collect(*child, views);
}

}  // namespace

nlohmann::json TableScreenController::snapshot() {
  DCHECK_ON_MAIN();
  loadView();
  nlohmann::json sections = nlohmann::json::array();
  for (const auto& section : sections_) {
    nlohmann::json cells = nlohmann::json::array();
    for (const auto& [row, cell] : section.cells) cells.push_back({{"row", row}, {"view", cell->node()}});
    sections.push_back({{"section", section.number}, {"heights", heightsOf(section)}, {"cells", cells}});
  }
  const char* selectable =
      !tableView_.allowsSelection_ ? "none" : tableView_.allowsMultipleSelection_ ? "multiple" : "single";
  nlohmann::json screen = {{"title", title_},         {"toolbar", toolbarNode()}, {"selectable", selectable},
                           {"sections", sections},    {"selection", selectionNode()},
                           {"selectionKeys", selectionKeysNode()}};
  // Everything is in the snapshot: nothing is pending any more.
  std::map<uint64_t, View*> shown;
  for (auto& section : sections_)
    for (auto& [row, cell] : section.cells) collect(*cell, shown);
  for (const auto& item : toolbarItems_) collect(*item, shown);
  for (auto& [id, view] : shown) view->takeChangedProps();
  pending_.clear();
  dirtyIds_.clear();
  selectionChanged_ = titleChanged_ = toolbarChanged_ = false;
  changeNoted_ = false;
  return screen;
}

nlohmann::json TableScreenController::takePatchOps() {
  DCHECK_ON_MAIN();
  nlohmann::json ops = nlohmann::json::array();
  std::set<uint64_t> sent;  // views sent whole in this patch
  auto pending = std::move(pending_);
  pending_.clear();
  for (auto& entry : pending) {
    if (auto* op = std::get_if<nlohmann::json>(&entry)) {
      ops.push_back(std::move(*op));
      continue;
    }
    const auto& pendingCell = std::get<PendingCell>(entry);
    auto cell = pendingCell.cell.lock();
    if (!cell) continue;
    nlohmann::json item = {{"row", pendingCell.row}, {"view", cell->node()}};
    std::map<uint64_t, View*> views;
    collect(*cell, views);
    for (auto& [id, view] : views) {
      sent.insert(id);
      view->takeChangedProps();
    }
    // Neighbouring cells of one section share one op.
    if (!ops.empty() && ops.back()["op"] == "cells" && ops.back()["section"] == pendingCell.section)
      ops.back()["cells"].push_back(std::move(item));
    else
      ops.push_back({{"op", "cells"}, {"section", pendingCell.section}, {"cells", nlohmann::json::array({item})}});
  }
  if (titleChanged_) ops.push_back({{"op", "title"}, {"title", title_}});
  if (toolbarChanged_) {
    ops.push_back({{"op", "toolbar"}, {"items", toolbarNode()}});
    for (const auto& item : toolbarItems_) {
      sent.insert(item->viewId());
      item->takeChangedProps();
    }
  }
  if (selectionChanged_) ops.push_back({{"op", "selection"}, {"rows", selectionNode()}, {"keys", selectionKeysNode()}});

  std::map<uint64_t, View*> shown;
  for (auto& section : sections_)
    for (auto& [row, cell] : section.cells) collect(*cell, shown);
  for (const auto& item : toolbarItems_) collect(*item, shown);
  for (uint64_t id : dirtyIds_) {
    auto found = shown.find(id);
    if (found == shown.end()) continue;  // not on screen: sent whole when it is shown again
    nlohmann::json props = found->second->takeChangedProps();
    if (!sent.count(id) && !props.empty()) ops.push_back({{"op", "props"}, {"id", id}, {"props", std::move(props)}});
  }
  dirtyIds_.clear();
  selectionChanged_ = titleChanged_ = toolbarChanged_ = false;
  changeNoted_ = false;
  return ops;
}

}  // namespace platform
