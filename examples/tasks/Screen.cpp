// The ncurses screen. Everything runs on the context's thread: keys arrive
// through a stream descriptor on stdin, link detection reports are posted back
// to the context, and the device calls back on it.
//
// The screen keeps its own copy of the rows (lines_) and changes it only by
// replaying each transform the rows publish, then draws the lines from the
// first one the transform touched (or just the rows changed in place).
// Scrolling, resizing and section changes redraw the list area.
#include "Screen.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <cstdio>

#include "Rows.h"
#include "loomwork/additions/LWURLDetectionOperation.h"
#include "loomwork/additions/TWDayDate.h"

namespace loomwork::tasks {

const char* const kScreenKeysHelp =
    "  a      add a task to the selected list\n"
    "  e      edit the task's title\n"
    "  n      edit its notes (links in them are underlined)\n"
    "  d      set its due day (YYYY-MM-DD, +N days from today, empty for none)\n"
    "  space  complete or reopen it\n"
    "  m / M  move it to the next / previous list\n"
    "  x      delete it\n"
    "  L      add a list\n"
    "  h      hide or show done tasks\n"
    "  /      search (filters as you type; Enter keeps it, Esc clears it)\n"
    "  o      go offline or online\n"
    "  up/down, j/k, PgUp/PgDn  select\n"
    "  q      quit\n";

namespace {

enum class Prompt { None, AddTask, EditTitle, EditNotes, EditDue, Search, AddList };

// The byte offset in UTF-8 text of a UTF-16 offset.
size_t byteOffsetOfUTF16(const std::string& text, size_t units) {
  size_t bytes = 0;
  while (bytes < text.size() && units > 0) {
    const auto lead = static_cast<unsigned char>(text[bytes]);
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    units -= std::min<size_t>(units, length == 4 ? 2 : 1);
    bytes = std::min(text.size(), bytes + length);
  }
  return bytes;
}

std::optional<int64_t> dayNumber(const Ref<TWDayDate>& date) {
  if (!date) return std::nullopt;
  return static_cast<int64_t>(std::llround(date->gmtDateAtMidnight().secondsSince1970 / 86400.0));
}

// "", "+N"/"-N" (days from today) or "YYYY-MM-DD"; false for anything else.
bool parseDay(const std::string& text, std::optional<int64_t>& day) {
  if (text.find_first_not_of(' ') == std::string::npos) {
    day.reset();
    return true;
  }
  long long a = 0, b = 0, c = 0;
  char tail = 0;
  if ((text[0] == '+' || text[0] == '-') && std::sscanf(text.c_str(), "%lld%c", &a, &tail) == 1) {
    day = dayNumber(TWDayDate::dayDateWithDaysFromToday(a));
    return day.has_value();
  }
  if (std::sscanf(text.c_str(), "%lld-%lld-%lld%c", &a, &b, &c, &tail) != 3) return false;
  auto date = TWDayDate::dayDateWithYearMonthDay(a, b, c);
  if (!date) return false;
  auto parts = date->dateComponents();
  if (parts.year != a || parts.month != b || parts.day != c) return false;  // no carrying over
  day = dayNumber(date);
  return true;
}

class Screen : public LWURLDetectionOperationDelegate, public std::enable_shared_from_this<Screen> {
 public:
  Screen(Device& device, asio::io_context& context)
      : device_(device),
        context_(context),
        rows_(device.model()),
        keys_(context, ::dup(STDIN_FILENO)),
        signals_(context, SIGWINCH) {}

  int run() {
    std::setlocale(LC_CTYPE, "");  // multibyte text; numbers keep the C format
    initscr();
    cbreak();
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    idcok(stdscr, FALSE);  // whole lines are redrawn; plain text keeps the output simple
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    std::weak_ptr<Screen> self = shared_from_this();
    LWURLDetectionOperation::setMainThreadDispatcher(
        [&context = context_](std::function<void()> task) { asio::post(context, std::move(task)); });
    lines_ = rows_.rows();
    rows_.setKeepsRowsBefore(false);
    rows_.setTransformObserver([this](const Ref<UGListTransform>& transform, const std::vector<Row>&,
                                      const std::vector<Row>& after) { followTransform(*transform, after); });
    rows_.setErrorObserver([this](const std::string& message) { showMessage("rows: " + message); });
    device_.model().addObserver([self](const UGTransaction&, const ModelChange& change) {
      if (auto screen = self.lock()) screen->afterModelChange(change);
    });
    device_.setStatusObserver([self](const SyncStatus&) {
      if (auto screen = self.lock()) screen->drawStatus(), screen->flush();
    });
    selectRow(0);
    drawAll();
    waitForKeys();
    waitForResize();
    context_.run();
    device_.setStatusObserver(nullptr);
    LWURLDetectionOperation::setMainThreadDispatcher(nullptr);
    if (detection_) detection_->cancel();
    endwin();
    return 0;
  }

  void urlDetectionOperationDidFinishWithURLsCharacterRanges(LWURLDetectionOperation& operation,
                                                             const std::vector<std::string>&,
                                                             const std::vector<IndexRange>& ranges) override {
    if (&operation != detection_.get()) return;
    links_.clear();
    for (const auto& range : ranges) {
      const size_t from = byteOffsetOfUTF16(operation.string(), static_cast<size_t>(range.location));
      const size_t to = byteOffsetOfUTF16(operation.string(), static_cast<size_t>(range.location + range.length));
      links_.emplace_back(from, to);
    }
    drawNotes();
    flush();
  }

 private:
  // MARK: Layout

  int listTop() const { return 1; }
  int listHeight() const { return std::max(1, LINES - 4); }

  // The display line of a row: the rows before it plus the section headers up
  // to its own.
  size_t displayLineOfRow(size_t row) const {
    size_t headers = 0;
    for (const auto& section : sections_)
      if (section.firstRow <= row) ++headers;
    return row + std::max<size_t>(headers, 1);
  }

  // What a display line shows: a section (header) or a row.
  struct Entry {
    const Section* header = nullptr;
    std::optional<size_t> row;
  };
  Entry entryAt(size_t line) const {
    size_t at = 0;
    for (const auto& section : sections_) {
      if (line == at) return Entry{&section, std::nullopt};
      if (line <= at + section.rowCount) return Entry{nullptr, section.firstRow + (line - at - 1)};
      at += section.rowCount + 1;
    }
    return Entry{};
  }

  // MARK: Following changes

  void followTransform(const UGListTransform& transform, const std::vector<Row>& after) {
    std::vector<size_t> inserted;
    std::string error;
    if (!TaskRows::replayTransform(lines_, transform, inserted, error)) showMessage("screen rows: " + error);
    for (size_t index : inserted)
      if (index < after.size()) lines_[index] = after[index];
    for (size_t index : rows_.refreshedRows())
      if (index < after.size() && index < lines_.size()) lines_[index] = after[index];
    // Everything from the first touched row down moves; rows changed in
    // place are drawn one by one.
    std::optional<size_t> first;
    auto lower = [&](size_t index) { first = first ? std::min(*first, index) : index; };
    if (!transform.deletions().empty()) lower(static_cast<size_t>(transform.deletions().front()->index()));
    if (!transform.insertions().empty()) lower(static_cast<size_t>(transform.insertions().front()->index()));
    std::optional<size_t> firstLine;
    if (first) {
      const size_t line = displayLineOfRow(*first);
      firstLine = line > 0 ? line - 1 : 0;
    }
    // A section that came, went or was renamed moves the lines below its header.
    auto now = rows_.sections();
    size_t headerLine = 0;
    for (size_t i = 0; i < std::max(now.size(), sections_.size()); ++i) {
      if (i >= now.size() || i >= sections_.size() || now[i].list != sections_[i].list ||
          now[i].name != sections_[i].name) {
        firstLine = std::min(firstLine.value_or(headerLine), headerLine);
        break;
      }
      headerLine += now[i].rowCount + 1;
    }
    sections_ = std::move(now);
    settleSelection();
    if (firstLine) drawListFrom(*firstLine);
    for (size_t index : rows_.refreshedRows()) drawListLine(displayLineOfRow(index));
    flush();
  }

  void afterModelChange(const ModelChange& change) {
    auto now = rows_.sections();
    bool sectionsMoved = now.size() != sections_.size();
    for (size_t i = 0; !sectionsMoved && i < now.size(); ++i)
      sectionsMoved = now[i].list != sections_[i].list || now[i].name != sections_[i].name ||
                      now[i].firstRow != sections_[i].firstRow || now[i].rowCount != sections_[i].rowCount;
    sections_ = std::move(now);
    if (sectionsMoved) drawListFrom(top_);
    settleSelection();
    bool notesChanged = false;
    for (const auto& [uuid, old] : change.updated)
      if (uuid == selectedTask_) notesChanged = true;
    if (notesChanged) detectLinks(true);
    drawStatus();
    flush();
  }

  // Keeps the selection on the same task when it moved, else on the same row.
  void settleSelection() {
    if (!selectedTask_.empty() && !(selected_ < lines_.size() && lines_[selected_].task == selectedTask_)) {
      for (size_t i = 0; i < lines_.size(); ++i)
        if (lines_[i].task == selectedTask_) {
          selected_ = i;
          break;
        }
    }
    selectRow(std::min(selected_, lines_.empty() ? 0 : lines_.size() - 1));
  }

  void selectRow(size_t row) {
    const size_t old = selected_;
    const std::string oldTask = selectedTask_;
    selected_ = row;
    selectedTask_ = row < lines_.size() ? lines_[row].task : std::string();
    // Scroll so that the selected row (and its section header) stays in view.
    const size_t line = lines_.empty() ? 0 : displayLineOfRow(row);
    const size_t height = static_cast<size_t>(listHeight());
    size_t top = top_;
    if (line < top + 1) top = line > 0 ? line - 1 : 0;
    if (line >= top + height) top = line - height + 1;
    if (top != top_) {
      top_ = top;
      drawListFrom(top_);
    } else if (old != selected_ || oldTask != selectedTask_) {
      if (old < lines_.size()) drawListLine(displayLineOfRow(old));
      drawListLine(line);
    }
    if (oldTask != selectedTask_) detectLinks(false);
  }

  // MARK: Links

  std::string selectedNotes() const {
    const Entity* task = selectedTask_.empty() ? nullptr : device_.model().find(selectedTask_);
    return task ? task->string("notes") : std::string();
  }

  void detectLinks(bool notesChanged) {
    const std::string notes = selectedNotes();
    if (!notesChanged && detection_ && detection_->string() == notes) return;
    if (detection_) detection_->cancel();
    detection_ = nullptr;
    links_.clear();
    if (!notes.empty()) {
      detection_ = make<LWURLDetectionOperation>(notes, 32 | 16 | 2048);
      detection_->setDelegate(std::static_pointer_cast<LWURLDetectionOperationDelegate>(shared_from_this()));
      queue_.addOperation(detection_);
    }
    drawNotes();
  }

  // MARK: Drawing

  void flush() {
    drawPromptLine();
    refresh();
  }

  void drawListFrom(size_t line) {
    for (size_t at = std::max(line, top_); at < top_ + static_cast<size_t>(listHeight()); ++at) drawListLine(at);
  }

  void drawListLine(size_t line) {
    if (line < top_ || line >= top_ + static_cast<size_t>(listHeight())) return;
    const int y = listTop() + static_cast<int>(line - top_);
    move(y, 0);
    clrtoeol();
    const Entry entry = entryAt(line);
    if (entry.header) {
      attron(A_BOLD);
      mvaddnstr(y, 0, ("== " + entry.header->name).c_str(), COLS);
      attroff(A_BOLD);
      return;
    }
    if (!entry.row || *entry.row >= lines_.size()) return;
    const Row& row = lines_[*entry.row];
    std::string text = std::string("  [") + (row.done ? 'x' : ' ') + "] " + row.title;
    std::string due = row.dueDay ? TaskRows::dayText(*row.dueDay) : std::string();
    const bool selected = *entry.row == selected_;
    if (selected) attron(A_REVERSE);
    mvaddnstr(y, 0, text.c_str(), std::max(0, COLS - static_cast<int>(due.size()) - 1));
    if (!due.empty() && COLS > static_cast<int>(due.size()))
      mvaddstr(y, COLS - static_cast<int>(due.size()), due.c_str());
    if (selected) attroff(A_REVERSE);
  }

  void drawHeader() {
    move(0, 0);
    clrtoeol();
    const auto& options = device_.options();
    std::string text =
        std::string(" loomwork-tasks  ") +
        (options.role == Role::Server ? "server on port " + std::to_string(device_.listeningPort())
                                      : "client of " + options.host + ":" + std::to_string(options.port)) +
        "  " + options.databasePath;
    if (!rows_.search().empty()) text += "   search: " + rows_.search();
    if (!rows_.showsDone()) text += "   (done hidden)";
    attron(A_BOLD);
    mvaddnstr(0, 0, text.c_str(), COLS);
    attroff(A_BOLD);
  }

  void drawNotes() {
    const int y = LINES - 3;
    move(y, 0);
    clrtoeol();
    const std::string notes = selectedNotes();
    if (notes.empty()) return;
    mvaddstr(y, 0, " notes: ");
    size_t at = 0;
    auto put = [&](size_t from, size_t to, bool link) {
      if (to <= from) return;
      if (link) attron(A_UNDERLINE);
      std::string piece = notes.substr(from, to - from);
      for (char& c : piece)
        if (c == '\n' || c == '\t') c = ' ';
      addnstr(piece.c_str(), static_cast<int>(piece.size()));
      if (link) attroff(A_UNDERLINE);
    };
    for (const auto& [from, to] : links_) {
      if (from < at || to > notes.size()) continue;
      put(at, from, false);
      put(from, to, true);
      at = to;
    }
    put(at, notes.size(), false);
  }

  void drawPromptLine() {
    const int y = LINES - 2;
    move(y, 0);
    clrtoeol();
    if (prompt_ != Prompt::None) {
      mvaddnstr(y, 0, (promptLabel() + input_).c_str(), COLS);
      return;
    }
    if (!message_.empty()) mvaddnstr(y, 0, message_.c_str(), COLS);
  }

  void drawStatus() {
    const SyncStatus status = device_.status();
    auto state = [](const std::optional<OTState>& s) {
      return s ? "(" + std::to_string(s->serverIndex()) + "," + std::to_string(s->clientIndex()) + ")"
               : std::string("-");
    };
    std::string text = std::string(" ") + (status.online ? "online" : "offline") + "  " +
                       (status.connected ? "connected" : "not connected") + "  state " + state(status.currentState) +
                       "  claimed " + state(status.claimedRemoteState) + "  waiting " +
                       std::to_string(status.componentsWaiting) + "  tasks " + std::to_string(lines_.size());
    if (status.seedProgress) text += "  seed " + std::to_string(static_cast<int>(*status.seedProgress * 100)) + "%";
    const int y = LINES - 1;
    move(y, 0);
    clrtoeol();
    attron(A_REVERSE);
    mvaddnstr(y, 0, (text + std::string(static_cast<size_t>(std::max(0, COLS)), ' ')).c_str(), COLS);
    attroff(A_REVERSE);
  }

  // A full redraw: at start and after a resize.
  void drawAll() {
    clear();
    sections_ = rows_.sections();
    drawHeader();
    drawListFrom(top_);
    drawNotes();
    drawStatus();
    flush();
  }

  void showMessage(std::string message) {
    message_ = std::move(message);
    drawPromptLine();
  }

  std::string promptLabel() const {
    switch (prompt_) {
      case Prompt::AddTask:
        return "New task: ";
      case Prompt::EditTitle:
        return "Title: ";
      case Prompt::EditNotes:
        return "Notes: ";
      case Prompt::EditDue:
        return "Due (YYYY-MM-DD, +N, empty): ";
      case Prompt::Search:
        return "Search: ";
      case Prompt::AddList:
        return "New list: ";
      case Prompt::None:
        break;
    }
    return {};
  }

  // MARK: Input

  void waitForKeys() {
    keys_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const std::error_code& error) {
      if (error) return;
      for (int key = getch(); key != ERR && !quitting_; key = getch()) handleKey(key);
      flush();
      if (quitting_) {
        context_.stop();
        return;
      }
      waitForKeys();
    });
  }

  void waitForResize() {
    signals_.async_wait([this](const std::error_code& error, int) {
      if (error) return;
      endwin();
      refresh();
      top_ = 0;
      selectRow(selected_);
      drawAll();
      waitForResize();
    });
  }

  const Row* selectedRow() const { return selected_ < lines_.size() ? &lines_[selected_] : nullptr; }

  std::string selectedList() const {
    if (const Row* row = selectedRow()) return row->list;
    return sections_.empty() ? std::string() : sections_.front().list;
  }

  void startPrompt(Prompt prompt, std::string initial = {}) {
    prompt_ = prompt;
    input_ = std::move(initial);
    message_.clear();
  }

  void handleKey(int key) {
    if (prompt_ != Prompt::None) return handlePromptKey(key);
    message_.clear();
    const Row* row = selectedRow();
    switch (key) {
      case KEY_UP:
      case 'k':
        if (selected_ > 0) selectRow(selected_ - 1);
        break;
      case KEY_DOWN:
      case 'j':
        if (selected_ + 1 < lines_.size()) selectRow(selected_ + 1);
        break;
      case KEY_PPAGE:
        selectRow(selected_ > static_cast<size_t>(listHeight()) ? selected_ - static_cast<size_t>(listHeight()) : 0);
        break;
      case KEY_NPAGE:
        if (!lines_.empty()) selectRow(std::min(lines_.size() - 1, selected_ + static_cast<size_t>(listHeight())));
        break;
      case 'a':
        startPrompt(Prompt::AddTask);
        break;
      case 'L':
        startPrompt(Prompt::AddList);
        break;
      case '/':
        startPrompt(Prompt::Search, rows_.search());
        break;
      case 'e':
        if (row) startPrompt(Prompt::EditTitle, row->title);
        break;
      case 'n':
        if (row) startPrompt(Prompt::EditNotes, selectedNotes());
        break;
      case 'd':
        if (row) startPrompt(Prompt::EditDue, row->dueDay ? TaskRows::dayText(*row->dueDay) : std::string());
        break;
      case ' ':
        if (row) device_.commit(TaskModel::update(row->task, kTaskKind, {{"done", Value(!row->done)}}));
        break;
      case 'm':
      case 'M':
        if (row) moveToNeighbourList(*row, key == 'm' ? 1 : -1);
        break;
      case 'x':
      case KEY_DC:
        if (row) device_.commit(TaskModel::remove(row->task, kTaskKind));
        break;
      case 'h':
        rows_.setShowDone(!rows_.showsDone());
        drawHeader();
        break;
      case 'o':
        device_.setOnline(!device_.status().online);
        drawStatus();
        break;
      case 'q':
        quitting_ = true;
        break;
      default:
        break;
    }
  }

  void moveToNeighbourList(const Row& row, int step) {
    if (sections_.size() < 2) return showMessage("there is no other list");
    const auto count = static_cast<int64_t>(sections_.size());
    int64_t at = 0;
    while (at < count && sections_[static_cast<size_t>(at)].list != row.list) ++at;
    const auto to = static_cast<size_t>(((at + step) % count + count) % count);
    device_.commit(TaskModel::update(row.task, kTaskKind, {{"list", Value(sections_[to].list)}}));
  }

  void handlePromptKey(int key) {
    if (key == 27) {  // Esc
      if (prompt_ == Prompt::Search) setSearch("");
      prompt_ = Prompt::None;
      return;
    }
    if (key == '\n' || key == '\r' || key == KEY_ENTER) {
      const Prompt prompt = prompt_;
      prompt_ = Prompt::None;
      return finishPrompt(prompt, input_);
    }
    if (key == KEY_BACKSPACE || key == 127 || key == 8) {
      while (!input_.empty() && (static_cast<unsigned char>(input_.back()) & 0xC0) == 0x80) input_.pop_back();
      if (!input_.empty()) input_.pop_back();
    } else if (key >= 32 && key < 256) {
      input_ += static_cast<char>(key);
    } else {
      return;
    }
    if (prompt_ == Prompt::Search) setSearch(input_);
  }

  void setSearch(const std::string& query) {
    rows_.setSearch(query);
    drawHeader();
  }

  void finishPrompt(Prompt prompt, const std::string& text) {
    const Row* row = selectedRow();
    switch (prompt) {
      case Prompt::AddTask: {
        if (text.empty()) return;
        std::string list = selectedList();
        if (list.empty()) {
          auto created = TaskModel::createList("Tasks", 1);
          device_.commit(created.second);
          list = created.first;
        }
        auto created = TaskModel::createTask(list, text);
        selectedTask_ = created.first;
        device_.commit(created.second);
        settleSelection();
        return;
      }
      case Prompt::AddList: {
        if (text.empty()) return;
        double order = 0;
        for (const auto& [uuid, entity] : device_.model().entities())
          if (entity.kind == kListKind) order = std::max(order, entity.real("order"));
        device_.commit(TaskModel::createList(text, order + 1).second);
        return;
      }
      case Prompt::EditTitle:
        if (row && !text.empty()) device_.commit(TaskModel::update(row->task, kTaskKind, {{"title", Value(text)}}));
        return;
      case Prompt::EditNotes:
        if (row) device_.commit(TaskModel::update(row->task, kTaskKind, {{"notes", Value(text)}}));
        return;
      case Prompt::EditDue: {
        std::optional<int64_t> day;
        if (!parseDay(text, day)) return showMessage("not a day: " + text);
        if (row) device_.commit(TaskModel::update(row->task, kTaskKind, {{"due", day ? Value(*day) : Value::null()}}));
        return;
      }
      case Prompt::Search:
      case Prompt::None:
        return;
    }
  }

  Device& device_;
  asio::io_context& context_;
  TaskRows rows_;
  std::vector<Row> lines_;  // the screen's rows, moved only by replayed transforms
  std::vector<Section> sections_;
  size_t selected_ = 0, top_ = 0;
  std::string selectedTask_;
  Prompt prompt_ = Prompt::None;
  std::string input_, message_;
  bool quitting_ = false;
  Ref<LWURLDetectionOperation> detection_;
  std::vector<std::pair<size_t, size_t>> links_;  // byte ranges of the selected task's notes
  LWURLDetectionOperationQueue queue_;
  asio::posix::stream_descriptor keys_;
  asio::signal_set signals_;
};

}  // namespace

int runScreen(Device& device, asio::io_context& context) {
  auto screen = std::make_shared<Screen>(device, context);
  return screen->run();
}

}  // namespace loomwork::tasks
