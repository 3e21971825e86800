// The OPC DA server process: the one place that knows every concrete type. It builds the parts, loads the window and
// runs the message loop until the window is closed.
//
// Exit codes: 0 served and unloaded, helped, registered or unregistered; 1 could not start, was closed without ever
// having been able to (no INI file, sites that cannot be set up), or was ended by a second signal.
//
// Standard error carries what the window or the log cannot show: why libraries refused, and why the process ends.

#include <fmt/format.h>
#include <malloc.h>
#include <unistd.h>

#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Clock Library/Clock.h"
#include "CurrentData Reader/CurrentDataReader.h"
#include "DB Interface Library/DBIL.h"
#include "DB Interface Library/SystemINI.h"
#include "Data Interface/DataInterface.h"
#include "Messages/LogWriter.h"
#include "Messages/MessageTypeNames.h"
#include "Messages/OldLogs.h"
#include "OPC/Health/Observed.h"
#include "OPC/Health/PlantHealth.h"
#include "OPC/Health/SystemItems.h"
#include "OPC/Main/OpcNetwork.h"
#include "OPC/Main/Registration.h"
#include "OPC/Main/StandardSwitches.h"
#include "OPC/Main/Systemd.h"
#include "OPC/OPC DA Server/frmOPCQuelm.h"
#include "base/TimeSource.h"
#include "loop/AsioLoop.h"
#include "slikda/SLIKServer.h"
#include "window/MainWindow.h"
#ifdef QUELM_WINDOW
#include "window/fltk/FltkWindow.h"
#endif

namespace quelm {
namespace {

// How long clients get to leave when the process is told to end; the longest fits into what a service manager allows.
constexpr const char* stopWaitVariable = "QUELM_STOP_WAIT";
constexpr std::chrono::seconds usualStopWait{8};
constexpr int longestStopWaitSeconds = 3600;
constexpr std::uint64_t secondSignalMilliseconds = 10000;
// Bytes from which on a table has memory of its own, which goes back to the system with it and leaves no hole.
constexpr int ownMemorySize = 1 << 20;
// By then every table has been read once, at the slowest period of 20 seconds.
constexpr std::chrono::seconds firstReads{25};

void printLine(systemd::Priority priority, std::string_view line) {
    const std::string text =
        fmt::format("{}{}: {}\n", systemd::linePrefix(priority), frmOPCQuelm::executableName, line);
    std::fwrite(text.data(), 1, text.size(), stderr);
}

void printProblem(std::string_view line) {
    printLine(systemd::Priority::error, line);
}

// Out of the environment, for the unit that sets it also says how long a stop may take.
std::chrono::seconds stopWait() {
    const char* const value = std::getenv(stopWaitVariable);
    const std::string_view text = value != nullptr ? value : "";
    int seconds = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
    if (error == std::errc() && end == text.data() + text.size() && seconds >= 0 && seconds <= longestStopWaitSeconds) {
        return std::chrono::seconds(seconds);
    }
    if (!text.empty()) {
        printProblem(
            fmt::format("{} = \"{:.40}\" is no number of seconds from 0 to {}; clients get {} seconds to leave",
                        stopWaitVariable, text, longestStopWaitSeconds, usualStopWait.count()));
    }
    return usualStopWait;
}

void printNotice(std::string_view line) {
    printLine(systemd::Priority::information, line);
}

OpenDisplay openDisplay([[maybe_unused]] AsioLoop& loop) {
#ifdef QUELM_WINDOW
    return [&loop](const std::vector<std::string>& lines, DisplayEvents events) {
        return openFltkWindow(loop, lines, std::move(events));
    };
#else
    return {};
#endif
}

class Program {
 public:
    explicit Program(std::string commandLine)
        : window_(loop_, openDisplay(loop_),
                  {.closeRequested = [this] { close(); },
                   .closed = [this] { loop_.stop(); },
                   .noDisplay = printProblem,
                   .displayLost = [this](std::string_view line) { form_.AddMessage(msgtype::error, line, true); }}),
          network_(control_, health_, loop_, networkLoop_, systemd::takeSockets(),
                   {// Whoever reads the log later must see how open the server was at that time.
                    .weakened = [this](std::string_view line) { form_.AddMessage(msgtype::notice, line, true); },
                    .notice =
                        [](std::string_view line) {
                            printNotice(line);
                            systemd::tell(fmt::format("STATUS={}", line));
                        },
                    .client =
                        [this](std::string_view line) {
                            form_.AddMessage(msgtype::notice, line, false);
                            showStatus();
                        },
                    .trouble = printProblem,
                    .failure = [this](std::string_view text) { reportUnexpected(text); }}),
          form_(parts(std::move(commandLine))) {
        control_.setHooks({
            .openNetwork = [this] { openNetwork(); },
            .registerServer = [] { registerServer(thisProgramsRegistration(printNotice, printProblem)); },
            .unregisterServer = [] { unregisterServer(thisProgramsRegistration(printNotice, printProblem)); },
            .requestDisconnect = [this](std::string_view reason) { network_.requestShutdown(reason); },
            .eventFailed =
                [this](std::string_view event, const ErrorInfo& failure) {
                    form_.AddMsg(msgtype::error, fmt::format("{} failed; {}", event, failure.text()));
                },
            .lastItems = [this] { addSystemItems(); },
        });
    }

    ~Program() {
        // Clients that are still there go now, when there is nobody left to tell.
        control_.SetEvents(nullptr);
        network_.close();
    }

    int run() {
        loop_.onSignal({SIGTERM, SIGINT, SIGHUP}, [this](int signal) { onSignal(signal); });
        switch (load()) {
            case StartUp::HelpShown:
                if (window_.boxOpen()) {
                    break;
                }
                return 0;
            case StartUp::Registered:
                return 0;
            case StartUp::INIFailed:
            case StartUp::SitesFailed:
                exitCode_ = 1;
                systemd::tell("STATUS=Cannot serve anybody; the messages before this say why");
                // Nobody sees this window, and a service that idles unseen would pass for one that works.
                if (systemd::supervised() && !window_.onDisplay()) {
                    form_.Unload();
                    return exitCode_;
                }
                break;
            case StartUp::WaitingForDatabase:
                systemd::tell("READY=1\nSTATUS=Waiting for the database");
                break;
            case StartUp::Running:
                systemd::tell("READY=1");
                break;
        }
        showStatus();
        giveBackMemory();
        firstReadsDone_->start(firstReads);
        while (!runHandlers()) {
        }
        systemd::tell("STOPPING=1");
        return exitCode_;
    }

 private:
    ServerParts parts(std::string commandLine) {
        return ServerParts{
            .SLIKServer1 = control_,
            .Window = window_,
            .CommandLine = std::move(commandLine),
            .InstanceNumber = static_cast<std::int32_t>(getpid()),
            .NewSystemINI = [] { return std::make_unique<SystemINI>(systemIniPath(), thisComputer(), printProblem); },
            .NewDBIL =
                [this](const ISystemINI& objSystemINI) {
                    return std::make_shared<health::ObservedDBIL>(
                        std::make_shared<DBIL>(
                            builtInSqlDrivers(objSystemINI.DatabaseTimeouts()), printProblem,
                            [this](const std::string& connection, const std::optional<ErrorInfo>& loss) {
                                tellOfDatabase(connection, loss);
                            }),
                        health_);
                },
            .NewClock = [this] { return std::make_shared<Clock>(loop_); },
            .NewLogWriter =
                [this](const ISystemINI& objSystemINI) {
                    removeOldLogs(objSystemINI.LogFolder(), objSystemINI.KeepLogs(), printProblem);
                    return std::make_unique<health::ObservedLog>(
                        std::make_unique<LogWriter>(LogTrouble{printProblem,
                                                               [this](std::string_view line) {
                                                                   if (!window_.isPrinting()) {
                                                                       printNotice(line);
                                                                   }
                                                               }}),
                        health_, messageType_);
                },
            .MessageTypeName = [this](std::int32_t lngMsgType) { return messageType_ = messageTypeName(lngMsgType); },
            .Sites = {.NewDataInterface =
                          [](IDBIL& objDBIL, std::string_view strSiteID) {
                              return std::make_unique<DataInterface>(objDBIL.ConfigurationReader(), strSiteID);
                          },
                      .NewCurrentDataReader = [] { return std::make_unique<CurrentDataReader>(); }},
            .OnSiteUpdate =
                [this](const std::string& strSiteID, bool blnDone) {
                    if (blnDone) {
                        health_.passDone(strSiteID, pass_.milliseconds());
                        showStatus();
                        if (systemItems_) {
                            systemItems_->update(strSiteID, control_.clientCount());
                        }
                    }
                    pass_ = {};
                },
        };
    }

    // For the journal, where the machine's guards look, and beside the messages that follow from it in the log.
    void tellOfDatabase(const std::string& connection, const std::optional<ErrorInfo>& loss) {
        const std::string line = loss ? fmt::format("The database {} does not answer: {}", connection, loss->text())
                                      : fmt::format("The database {} answers again", connection);
        printLine(loss ? systemd::Priority::error : systemd::Priority::notice, line);
        form_.AddMessage(loss ? msgtype::error : msgtype::notice, line, true);
        showStatus();
    }

    void showStatus() { window_.ShowStatus(health_.summary(control_.clientCount())); }

    void addSystemItems() {
        if (const std::string branch = OpcNetwork::systemBranch(); !branch.empty()) {
            systemItems_.emplace(control_.SLIKTags(), health_, branch,
                                 [this](std::string_view line) { form_.AddMessage(msgtype::error, line, true); });
        }
    }

    // Once the database is there the start-up goes on, and whoever started the server no longer waits for its end.
    void openNetwork() {
        try {
            network_.open();
        } catch (...) {
            if (systemd::supervised()) {
                exitCode_ = 1;
                loop_.post([this] { form_.Unload(); });
            }
            throw;
        }
    }

    // A start-up that fails for good leaves its reason in the log, if one is open, and on standard error.
    StartUp load() {
        try {
            return form_.Form_Load();
        } catch (...) {
            const std::string reason = fmt::format("The server cannot start: {}", currentError().text());
            form_.AddMessage(msgtype::error, reason, true);
            form_.StopLog();
            throw;
        }
    }

    // Start-up, and the first read of each table, need as much memory for a moment as what stays.
    static void giveBackMemory() { malloc_trim(0); }

    // False when a handler let a failure out: the loop must go on, or everybody pays for it.
    bool runHandlers() {
        try {
            loop_.run();
            return true;
        } catch (...) {
            reportUnexpected(currentError().text());
            return false;
        }
    }

    void reportUnexpected(std::string_view text) {
        const std::string failure = fmt::format("Unexpected failure: {}", text);
        printProblem(failure);
        form_.AddMsg(msgtype::error, failure);
    }

    // Where the server is kept running without clients, that ends as soon as somebody wants it closed. False: clients
    // are there.
    bool close() {
        control_.releaseResident();
        return form_.Unload();
    }

    // Service managers ask for the settings to be read anew by the signal of a terminal that is closed.
    void onSignal(int signal) {
        if (signal == SIGHUP) {
            network_.reload();
        } else {
            closeOnSignal(signal);
        }
    }

    // A signal asks to close the window; clients may refuse. SIGTERM does not leave it at that: they get a while to go.
    // Whoever signals twice within ten seconds wants the end at once.
    void closeOnSignal(int signal) {
        const std::uint64_t now = timeSource().monotonicMilliseconds();
        if (lastSignal_ && now - *lastSignal_ <= secondSignalMilliseconds) {
            printProblem("Second signal: ending at once");
            exitCode_ = 1;
            form_.StopLog();
            window_.Close();
            return;
        }
        lastSignal_ = now;
        if (close()) {
            return;
        }
        if (signal == SIGTERM) {
            printNotice(fmt::format("Clients still use the server; they have {} seconds to leave, then it ends",
                                    stopWait_.count()));
            stopTimer_->start(stopWait_);
        } else {
            printProblem(
                "Clients still use the server, so it keeps running; a second signal within ten seconds ends it");
        }
    }

    // Without clients nothing keeps the window from being closed. Their going is told first.
    void endWithoutClients() {
        network_.close();
        loop_.post([this] { form_.Unload(); });
    }

    AsioLoop loop_;  // the plant's, on the main thread
    AsioLoop networkLoop_;
    health::PlantHealth health_{loop_, networkLoop_};
    health::Stopwatch pass_;   // since a site's part of the pass began
    std::string messageType_;  // of the line that is being logged
    MainWindow window_;
    SLIKServer control_{loop_, networkLoop_};
    std::optional<health::SystemItems> systemItems_;
    OpcNetwork network_;
    frmOPCQuelm form_;
    std::unique_ptr<ITimer> firstReadsDone_ = loop_.makeTimer(giveBackMemory);
    const std::chrono::seconds stopWait_ = stopWait();
    std::unique_ptr<ITimer> stopTimer_ = loop_.makeTimer([this] { endWithoutClients(); });
    std::optional<std::uint64_t> lastSignal_;
    int exitCode_ = 0;
};

std::string commandLineText(int argc, char** argv) {
    std::string text;
    for (int i = 1; i < argc; ++i) {
        if (i > 1) {
            text += ' ';
        }
        text += argv[i];
    }
    return text;
}

}  // namespace
}  // namespace quelm

int main(int argc, char** argv) {
    // Peers that go away and terminals that are closed are no reason to end.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGHUP, SIG_IGN);
    // A file that may not grow any further costs what was to be written to it.
    std::signal(SIGXFSZ, SIG_IGN);
    if (const auto exitCode = quelm::answerStandardSwitch(argc, argv)) {
        return *exitCode;
    }
    for (const std::string& line : quelm::notUnderstood(argc, argv)) {
        quelm::printNotice(line);
    }
    mallopt(M_MMAP_THRESHOLD, quelm::ownMemorySize);
    try {
        return quelm::Program(quelm::commandLineText(argc, argv)).run();
    } catch (...) {
        quelm::printProblem(quelm::currentError().text());
        return 1;
    }
}
