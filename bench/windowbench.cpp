// Window figures: how fast the grid takes and shows a large list, and how long the window
// thread can be kept from its events while a clip is checked.
//
//   tarvoqc-window-bench grid N      add N clips, show them, scroll to and select the last
//   tarvoqc-window-bench clear N     "Clear finished" on N clips, finished in runs of three sizes
//   tarvoqc-window-bench gaps CLIP   check CLIP; the longest gap between 10 ms timer ticks
//   tarvoqc-window-bench shot PNG WxH ROW EXTRA CLIP...   check the clips at that window size,
//                                  add EXTRA unchecked rows, select a row, save a picture

#include <QApplication>
#include <QMenu>
#include <QTest>
#include <QTimer>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <tuple>
#include <vector>

#include "ui/mainwindow.h"
#include "ui/tasklistmodel.h"

using namespace tarvoqc;
using Clock = std::chrono::steady_clock;

namespace {

long residentKiB()
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

int grid(int count)
{
    std::vector<std::string> paths;
    std::size_t pathBytes = 0;
    for (int i = 0; i < count; ++i) {
        paths.push_back("/srv/media/incoming/2026-11-23/channel-one/clip-" + std::to_string(i) +
                        ".mxf");
        pathBytes += paths.back().size();
    }
    MainWindow window;
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        return 1;
    }
    QApplication::processEvents();
    const long before = residentKiB();
    const auto start = Clock::now();
    window.addFiles(0, paths);
    auto* view = static_cast<CMaGrid*>(window.control(kIdTaskGrid));
    view->scrollToBottom();
    view->setCurrentIndex(view->model()->index(count - 1, 0));
    QApplication::processEvents();
    view->repaint();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const long after = residentKiB();
    const double perRow =
        (static_cast<double>(after - before) * 1024.0 - static_cast<double>(pathBytes)) / count;
    std::printf("grid: %d clips added, shown, last row selected in %.3f s (target < 0.5 s); "
                "memory %.0f bytes per row beside its path (target < 1024)\n",
                count, seconds, std::max(0.0, perRow));
    const bool selected = view->selectedRow() == count - 1;
    // The grid's other views of the same list, each shown at once.
    const std::pair<const char*, std::function<void()>> views[] = {
        {"sorted by path, descending",
         [&] { window.setGridOrder(GridOrder::Path, Qt::DescendingOrder); }},
        {"sorted by status", [&] { window.setGridOrder(GridOrder::Status); }},
        {"filtered to the clips below 3/5", [&] { window.setBelowPassingOnly(true); }},
        {"back to the list's order, unfiltered", [&] {
             window.setBelowPassingOnly(false);
             window.setGridOrder(GridOrder::List);
         }}};
    for (const auto& [what, change] : views) {
        const auto began = Clock::now();
        change();
        QApplication::processEvents();
        view->repaint();
        std::printf("grid: %s in %.3f s\n", what,
                    std::chrono::duration<double>(Clock::now() - began).count());
    }
    return selected ? 0 : 1;
}

// "Clear finished" on a list of count clips whose finished rows lie in runs of the given
// lengths: the time until the grid is drawn again, and whether the selected clip (one that
// stays) is still selected.
int clearFinished(int count)
{
    int status = 0;
    // Finished rows, then rows that stay, repeated.
    const std::tuple<const char*, int, int> patterns[] = {
        {"all but the last 10 finished (1 run)", count - 10, 10},
        // The most runs that still leave one by one, then one more.
        {"100 runs finished", count / 200, count / 200},
        {"101 runs finished", count / 202, count / 202},
        {"every other row finished", 1, 1},
    };
    for (const auto& [what, finished, staying] : patterns) {
        std::vector<std::string> paths;
        for (int i = 0; i < count; ++i) {
            paths.push_back("/srv/media/incoming/clip-" + std::to_string(i) + ".mxf");
        }
        MainWindow window;
        window.show();
        if (!QTest::qWaitForWindowExposed(&window)) {
            return 1;
        }
        window.addFiles(0, paths);
        TaskList& list = window.taskList();
        for (int i = 0; i + 1 < count; ++i) { // the last row always stays
            if (i % (finished + staying) < finished) {
                list.item(static_cast<std::size_t>(i)).setResult(std::make_unique<QcResult>());
            }
        }
        const int keep = count - 1;
        auto* view = static_cast<CMaGrid*>(window.control(kIdTaskGrid));
        view->setCurrentIndex(view->model()->index(keep, 0));
        QApplication::processEvents();
        const auto clear = static_cast<QPushButton*>(window.control(kIdClearButton))->menu();
        const auto began = Clock::now();
        clear->actions().at(0)->trigger(); // "Clear finished"
        QApplication::processEvents();
        view->repaint();
        const double seconds = std::chrono::duration<double>(Clock::now() - began).count();
        const bool kept = view->selectedRow() >= 0 &&
                          list.item(static_cast<std::size_t>(view->selectedRow())).path() ==
                              paths[static_cast<std::size_t>(keep)];
        std::printf("clear finished: %d clips, %s: %zu left in %.3f s, selection %s\n", count, what,
                    list.size(), seconds, kept ? "kept" : "LOST");
        status |= kept ? 0 : 1;
    }
    return status;
}

// Nanoseconds the calling thread has run on a processor and waited for one.
std::pair<double, double> threadSchedNs()
{
    std::ifstream stat("/proc/thread-self/schedstat");
    double onCpu = 0;
    double waiting = 0;
    stat >> onCpu >> waiting;
    return {onCpu, waiting};
}

int gaps(const char* clip)
{
    MainWindow window;
    window.taskList().AppendFromCommandLine(clip);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        return 1;
    }
    auto last = Clock::now();
    auto lastSched = threadSchedNs();
    double longest = 0.0;
    double longestAt = 0.0;
    double longestWaitMs = 0.0;
    double mostWorkMs = 0.0; // the window thread's own processor time between two ticks
    bool harvestedThen = false;
    QTimer probe;
    Clock::time_point start;
    QObject::connect(&probe, &QTimer::timeout, [&] {
        const auto now = Clock::now();
        const auto sched = threadSchedNs();
        const double gap = std::chrono::duration<double, std::milli>(now - last).count();
        const double workMs = (sched.first - lastSched.first) / 1e6;
        mostWorkMs = std::max(mostWorkMs, workMs);
        if (gap > longest) {
            longest = gap;
            longestAt = std::chrono::duration<double>(now - start).count();
            longestWaitMs = (sched.second - lastSched.second) / 1e6;
            harvestedThen = window.taskList().item(0).finished();
        }
        last = now;
        lastSched = sched;
    });
    window.start();
    window.command(kIdCheckAll);
    start = Clock::now();
    last = start;
    lastSched = threadSchedNs();
    probe.start(10);
    while (!window.taskList().item(0).finished() || window.controller().busy()) {
        QApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    // A gap is the window thread's own work plus the time it waited for a processor that
    // other programs had; the first is what the window costs.
    std::printf("gaps: checked in %.1f s; longest gap between 10 ms ticks %.1f ms at %.1f s%s, "
                "%.1f ms of it waiting for a processor (target < 50 ms); most work of the "
                "window thread between two ticks %.1f ms\n",
                std::chrono::duration<double>(Clock::now() - start).count(), longest, longestAt,
                harvestedThen ? " (when the result was harvested)" : "", longestWaitMs, mostWorkMs);
    return 0;
}

int shot(const char* png, const char* size, int row, int extra,
         const std::vector<std::string>& clips)
{
    int width = 820;
    int height = 560;
    std::sscanf(size, "%dx%d", &width, &height);
    MainWindow window;
    for (const std::string& clip : clips) {
        window.taskList().AppendFromCommandLine(clip);
    }
    window.resize(width, height);
    window.show();
    if (!QTest::qWaitForWindowExposed(&window)) {
        return 1;
    }
    window.start();
    window.command(kIdCheckAll);
    while (window.controller().state() != RunState::Idle || window.controller().busy()) {
        QApplication::processEvents(QEventLoop::AllEvents, 50);
    }
    // A long list after the checked clips: the grid as it looks with 50000 rows.
    std::vector<std::string> more;
    for (int i = 0; i < extra; ++i) {
        more.push_back("/srv/media/incoming/2026-11-23/channel-one/a-rather-long-folder-name/"
                       "clip-" +
                       std::to_string(i) + ".mxf");
    }
    window.addFiles(static_cast<int>(window.taskList().size()), more);
    QTest::qWait(300); // the last tick's status and a clock tick are drawn
    auto* view = static_cast<CMaGrid*>(window.control(kIdTaskGrid));
    view->setCurrentIndex(view->model()->index(row, 0));
    QTest::qWait(200);
    // A palette is plenty for a window and keeps the picture small.
    const QImage picture = window.grab().toImage().convertToFormat(
        QImage::Format_Indexed8, Qt::ThresholdDither | Qt::AvoidDither);
    return picture.save(png) ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (std::getenv("DISPLAY") == nullptr) {
        ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    }
    QApplication app(argc, argv);
    const std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "grid" && argc > 2) {
        return grid(std::atoi(argv[2]));
    }
    if (mode == "clear" && argc > 2) {
        return clearFinished(std::atoi(argv[2]));
    }
    if (mode == "gaps" && argc > 2) {
        return gaps(argv[2]);
    }
    if (mode == "shot" && argc > 6) {
        return shot(argv[2], argv[3], std::atoi(argv[4]), std::atoi(argv[5]),
                    std::vector<std::string>(argv + 6, argv + argc));
    }
    std::fprintf(stderr, "usage: tarvoqc-window-bench grid N | clear N | gaps CLIP | "
                         "shot PNG WxH ROW EXTRA CLIP...\n");
    return 2;
}
