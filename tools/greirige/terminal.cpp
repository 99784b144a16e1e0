#include "terminal.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include "error.h"
#include "signals.h"

namespace tool {

namespace {

void write_all(int file, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

// The terminal, or what stands in for it, without echo when what is typed is a secret.
class Prompt {
public:
    Prompt(const std::string &question, bool hidden)
        : terminal_(open("/dev/tty", O_RDWR | O_CLOEXEC | O_NOCTTY)),
          in_(terminal_ >= 0 ? terminal_ : STDIN_FILENO),
          out_(terminal_ >= 0 ? terminal_ : STDERR_FILENO),
          silent_(hidden && tcgetattr(in_, &before_) == 0)
    {
        if (silent_) {
            termios silent = before_;
            silent.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
            tcsetattr(in_, TCSAFLUSH, &silent);
        }
        write_all(out_, question);
    }
    ~Prompt()
    {
        if (silent_) {
            tcsetattr(in_, TCSAFLUSH, &before_);
            write_all(out_, "\n");
        }
        if (terminal_ >= 0)
            close(terminal_);
    }
    Prompt(const Prompt &) = delete;
    Prompt &operator=(const Prompt &) = delete;

    int input() const
    {
        return in_;
    }
    bool silent() const
    {
        return silent_;
    }

private:
    int terminal_;
    int in_;
    int out_;
    termios before_ = {};
    bool silent_;
};

// One line, byte by byte so that nothing behind it is consumed. False at the end of the input.
template <class Append>
bool read_line(int file, Append append)
{
    for (bool any = false;; any = true) {
        wait_for_input(file);
        char byte = 0;
        if (read(file, &byte, 1) != 1)
            return any;
        if (byte == '\n')
            return true;
        append(byte);
    }
}

struct Answer {
    Secret text;
    bool unseen = false;
};

Answer ask(const std::string &question, bool hidden, const std::string &instead)
{
    const Prompt prompt(question, hidden);
    Answer answer{.text = {}, .unseen = prompt.silent()};
    if (!read_line(prompt.input(), [&](char byte) { answer.text.append(byte); }))
        throw Failure(ExitStatus::cannot_connect, "no password was given: the input ended (" +
                                                      instead + " reads it from a file)");
    return answer;
}

} // namespace

bool somebody_is_there()
{
    return isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1;
}

bool confirm(const std::string &question)
{
    write_all(STDERR_FILENO, question);
    std::string answer;
    const bool answered = read_line(STDIN_FILENO, [&](char byte) { answer += byte; });
    return answered && (answer.starts_with('y') || answer.starts_with('Y'));
}

Secret read_password(const std::string &prompt, const std::string &instead)
{
    return ask(prompt, true, instead).text;
}

Secret read_answer(const std::string &prompt)
{
    return ask(prompt, false, "-y FILE").text;
}

Secret read_new_password(const std::string &prompt, const std::string &instead)
{
    Answer first = ask(prompt, true, instead);
    if (first.unseen && ask("The same again: ", true, instead).text.view() != first.text.view())
        throw UsageError("the two passwords differ");
    return std::move(first.text);
}

} // namespace tool
