// opcda: an OPC DA client for the command line.

#include <fmt/format.h>

#include <csignal>
#include <exception>
#include <string>
#include <vector>

#include "OPC/Client/Advice.h"
#include "OPC/Client/CheckCommand.h"
#include "OPC/Client/Commands.h"
#include "OPC/Client/Options.h"
#include "OPC/Client/Password.h"
#include "OPC/Client/WatchCommand.h"

namespace quelm::opcclient {
namespace {

Answer answerTo(const Options& options, Connection& connection, Screen& screen) {
    switch (options.command) {
        case Command::Discover:
            return discover(connection);
        case Command::Status:
            return status(connection, options);
        case Command::Browse:
            return browse(connection, screen, options);
        case Command::Read:
            return read(connection, options);
        case Command::Properties:
            return properties(connection, options);
        case Command::Groups:
            return groups(connection);
        default:
            return bench(connection, screen, options);
    }
}

ExitCode runOnServer(const Options& options, Screen& screen) {
    AsioLoop loop;
    Connection connection(loop, screen, options);
    // What the server holds for us is let go of on the way out.
    loop.onSignal({SIGINT, SIGTERM}, [&connection](int) { connection.interrupt(); });
    if (options.command == Command::Watch) {
        return watch(connection, screen, options);
    }
    if (options.command == Command::Check) {
        return runCheck(connection, loop, screen, options);
    }
    const Answer answer = answerTo(options, connection, screen);
    show(screen, options.form, answer);
    return answer.code;
}

ExitCode run(const Options& options, Screen& screen) {
    if (options.command == Command::Help) {
        screen.words(usageText());
        return ExitCode::Good;
    }
    if (options.command == Command::Version) {
        screen.line(fmt::format("opcda {}", QUELM_VERSION));
        return ExitCode::Good;
    }
    if (options.command == Command::Check && options.listsCases) {
        listCases(screen, options);
        return ExitCode::Good;
    }
    return runOnServer(options, screen);
}

ExitCode guarded(const Options& options, Screen& screen) {
    try {
        const ExitCode code = run(options, screen);
        // A script must not take a lost answer for an empty one.
        if (!screen.flush()) {
            screen.message("the answer could not be written to standard output");
            return ExitCode::ItemFailed;
        }
        return code;
    } catch (const UsageError& error) {
        screen.message(error.what());
        return ExitCode::Usage;
    } catch (const Interruption&) {
        return ExitCode::Interrupted;
    } catch (const dcom::client::Trouble& trouble) {
        if (trouble.kind != dcom::client::Trouble::Kind::Interrupted) {
            screen.message(trouble.what());
            const std::string advice = adviceOn(trouble, options);
            if (!advice.empty()) {
                screen.message(advice);
            }
        }
        return exitCodeOf(trouble);
    } catch (const opcda::client::OpcError& error) {
        screen.message(error.what());
        return exitCodeOf(error);
    } catch (const std::exception& error) {
        screen.message(error.what());
        return ExitCode::NotReached;
    }
}

}  // namespace
}  // namespace quelm::opcclient

int main(int argc, char** argv) {
    using namespace quelm::opcclient;
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const Options options = parseOptions(std::vector<std::string>(argv + 1, argv + argc));
        Screen screen(options.color);
        return static_cast<int>(guarded(options, screen));
    } catch (const UsageError& error) {
        Screen(true).message(fmt::format("{} (opcda --help shows how it is used)", error.what()));
        return static_cast<int>(ExitCode::Usage);
    }
}
