#include "tools/harbour/program.h"

#include "tools/harbour/messages.h"
#include "tools/harbour/service.h"

#include <climits>
#include <cstring>
#include <poll.h>
#include <sys/wait.h>

namespace harbour {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds grace(300);   // for what a program left behind, to give the terminal up
constexpr milliseconds notice(1000); // from the hang-up to the notice of the end
constexpr size_t leftover = 1 << 17; // more than a terminal holds: the program's own is out by then
constexpr int maxrunning = 4096;     // usrnums are of the form n * maxrunning + index

void waitfor(Line &line, milliseconds time) {
    line.until = rightnow + time;
    hurry(line.until);
}

// The program is over: the caller and the operator are told, and the caller is back.
void over(Line &line, int number, Words words) {
    closemaster(line);
    if (!plainlanguage(line.language)) {
        show(line, "\033[0m", 4);
    }
    say(line, number, words);
    rules.tell(text(0, O_LINE, {line.number(), withoutcolours(text(0, number, words))}));
    line.program.clear();
    rules.back(line);
}

void tellend(Line &line) {
    if (WIFSIGNALED(line.status)) {
        const int signo = WTERMSIG(line.status);
        over(line, T_SIGNALLED, {line.program, std::to_string(signo), strsignal(signo)});
    } else {
        const int code = WEXITSTATUS(line.status);
        over(line, code == 0 ? T_ENDED : T_EXITED, {line.program, std::to_string(code)});
    }
}

void checkend(Line &line) {
    if (line.hungup && line.ended) {
        tellend(line);
    } else {
        waitfor(line, line.ended ? grace : notice);
    }
}

} // namespace

void startprogram(Line &line, const Entry &entry) {
    static int serial = 0;
    const std::string terminal = line.terminal.empty() ? "ansi" : line.terminal;
    std::string command = entry.command;
    for (size_t at = 0; (at = command.find("%t", at)) != command.npos;) {
        command.replace(at, 2, terminal);
    }
    serial = (serial + 1) % (INT_MAX / maxrunning);
    line.usrnum = serial * maxrunning + line.index;
    line.program = entry.title;
    line.hungup = line.ended = false;
    line.since = 0;
    say(line, T_STARTING, {entry.title});
    enter(line, State::starting);
    if (entry.minutes > 0) {
        line.until = rightnow + milliseconds(static_cast<int64_t>(entry.minutes * 60000));
    }
    rules.tell(text(0, O_RUNS, {line.number(), entry.title, command}));
    runprogram(line.usrnum, command);
}

void started(Line &line, int master) {
    if (master >= 0) {
        openmaster(line, master);
        line.state = State::running;
    } else {
        killprogram(line.usrnum);
        over(line, T_TRYLATER, {line.program});
    }
    settle(line);
}

void refused(Line &line) {
    over(line, T_REFUSED, {line.program});
    settle(line);
}

void ended(Line &line, int status) {
    line.ended = true;
    line.status = status;
    checkend(line);
    settle(line);
}

void servicelost(Line &line) {
    if (line.busy()) {
        over(line, T_SERVICELOST, {line.program});
        settle(line);
    }
}

void programhungup(Line &line) {
    checkend(line);
}

void lookatend(Line &line) {
    hurry(line.until);
    if (rightnow < line.until) {
        return;
    }
    if (!line.ended) {
        killprogram(line.usrnum); // that the daemon drops its record
        over(line, T_NOBODYKNOWS, {line.program});
        return;
    }
    pollfd terminal = {line.master, POLLIN, 0};
    const bool unread = !line.tocaller.empty() || poll(&terminal, 1, 0) > 0;
    if (unread && line.since < leftover) {
        waitfor(line, grace);
    } else {
        tellend(line);
    }
}

Line *lineof(int usrnum) {
    const auto index = static_cast<size_t>(usrnum % maxrunning);
    if (usrnum < 0 || index >= lines.size()) {
        return nullptr;
    }
    Line &line = lines[index];
    return line.usrnum == usrnum && line.busy() ? &line : nullptr;
}

void endprogram(Line &line, int number) {
    const std::string program = line.program;
    stopprogram(line);
    over(line, number, {program});
    settle(line);
}

} // namespace harbour
