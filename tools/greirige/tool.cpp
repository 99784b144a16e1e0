#include "tool.h"

#include "signals.h"
#include "terminal.h"
#include "text.h"

namespace tool {

Tool::Tool(Options &options)
    : output(options.json), options_(options),
      session_(std::make_unique<Session>(options.connection, options.verbose))
{
}

greirige::Session Tool::session()
{
    return greirige::Session(ld());
}

LDAP *Tool::ld()
{
    return session_->ld();
}

const std::string &Tool::server() const
{
    return session_->server();
}

bool Tool::connected() const
{
    return session_->connected();
}

void Tool::prepare_to_reconnect()
{
    options_.connection.keep_answers = true;
}

void Tool::reconnect(std::optional<long> seconds)
{
    session_.reset();
    session_ = std::make_unique<Session>(options_.connection, options_.verbose);
    if (seconds)
        session_->limit_waits(*seconds);
    session_->open();
}

void Tool::handle_signals_itself()
{
    end_reads_on_signal(-1);
}

bool Tool::begin(const Operation &operation)
{
    if (!options_.dry_run) {
        if (operation.destructive)
            get_consent(operation);
        return true;
    }
    if (output.json()) {
        Json json = document(operation);
        json["done"] = false;
        json["dryRun"] = true;
        output.document(json);
    } else {
        output.line("would " + operation.doing + " on " + server());
    }
    return false;
}

void Tool::get_consent(const Operation &operation) const
{
    if (options_.yes)
        return;
    if (!somebody_is_there())
        throw UsageError(operation.name + " would " + operation.doing + " on " + server() +
                         ", and there is no terminal to ask on (--yes does it without asking)");
    if (!confirm("About to " + operation.doing + " on " + server() + ".\nGo ahead? [y/N] "))
        throw Failure(ExitStatus::failed, operation.name + " was not confirmed: nothing was sent");
}

void Tool::check(const Operation &operation, const greirige::Result<void> &result)
{
    if (!result)
        fail(operation, describe(ld(), result.error()));
}

void Tool::fail(const Operation &operation, const std::string &why) const
{
    leave_if_interrupted();
    throw Failure(ExitStatus::failed, "cannot " + operation.doing + " on " + server() + ": " + why);
}

ExitStatus Tool::carry_out(const Operation &operation, const Call &call)
{
    if (!begin(operation))
        return ExitStatus::done;
    check(operation, call(session()));
    if (output.json()) {
        Json json = document(operation);
        json["done"] = true;
        output.document(json);
    } else {
        output.line(operation.done);
    }
    return ExitStatus::done;
}

Json Tool::document(const Operation &operation) const
{
    Json json{{"operation", operation.name}, {"server", json_text(server())}};
    json.update(operation.details);
    return json;
}

void Tool::say(const std::string &what) const
{
    if (options_.verbose)
        complain(what);
}

} // namespace tool
