#include "helper/control_session.h"

#include <csignal>
#include <optional>
#include <string_view>
#include <utility>

#include "core/control/control_channel.h"
#include "core/control/control_reply.h"
#include "core/control/control_request.h"
#include "core/model/json_codec.h"
#include "core/model/scope_error.h"
#include "helper/session_control.h"
#include "helper/session_owner.h"
#include "helper/session_watchdog.h"
#include "helper/standard_streams.h"

namespace ferovane {
namespace {

// Every check is made whatever the others found, so that neither the text nor the time of a refusal
// tells which one it was.
SessionOwner authenticate(const std::vector<std::string>& args,
                          const HelperEnvironment& environment) {
    const bool root = environment.effectiveUser == 0;
    const bool complete = args.size() == kServeArguments;
    const auto parsed = complete ? SessionOwner::parse(args[2], args[3]) : std::nullopt;
    const SessionOwner owner = parsed.value_or(SessionOwner{});
    const bool authorised = owner.uid == environment.realUser;
    const bool alive = environment.ownerAlive(owner.pid, owner.uid);
    if (!(root && parsed && authorised && alive)) {
        if (root) {
            environment.log(LogLine({kCallerRefused, args[1]}));
        }
        throw ScopeError("原生授权会话身份验证失败");
    }
    return owner;
}

class Session {
public:
    Session(SessionOwner owner, const HelperEnvironment& environment)
        : owner_(owner),
          environment_(environment),
          control_(owner, environment),
          input_(environment.inputDescriptor, environment.uptime),
          output_(environment.outputDescriptor, environment.uptime),
          watchdog_(owner, environment, [this] { finish(); }) {}

    // Ends what is being done on every way out, also when the channel fails.
    void serve() {
        try {
            while (serveNext()) {
            }
        } catch (const std::exception& error) {
            leave(&error);
            throw;
        }
        leave(nullptr);
    }

private:
    bool serveNext() {
        const auto line = input_.readLine(environment_.timings.request);
        if (!line || !environment_.ownerAlive(owner_.pid, owner_.uid)) {
            return false;
        }
        const SessionControl::Serving serving(control_);
        bool shutdown = false;
        const ControlReply answer = reply(*line, shutdown);
        try {
            output_.send(fittedToLine(answer), [this] { return control_.isEnding(); });
        } catch (const std::exception&) {
            control_.takeBack(answer);
            throw;
        }
        return !shutdown;
    }

    ControlReply reply(std::string_view line, bool& shutdown) {
        std::optional<RequestId> id;
        std::string command;
        ControlReply answer;
        try {
            const auto request = decodeJson<ControlRequest>(line);
            id = request.id;
            command = request.command;
            shutdown = command == "shutdown";  // the wish counts, whatever comes with it
            request.validate();
            answer = control_.handle(request);
        } catch (const std::exception& error) {
            answer.message = describe(error);
            answer.code = rawValue(codeOf(error));
            id = requestIdIn(line);
        }
        if (!id) {
            answer.code.reset();  // whoever gives no id is told nothing new
        } else if (command == "status") {
            answer.ended = control_.takeEnding();
        }
        answer.id = std::move(id);
        return answer;
    }

    void leave(const std::exception* error) {
        watchdog_.stop();  // so that this is the only way out
        if (finish()) {
            return;
        }
        // A lease that does not end still owns its thread: nothing may be taken down under it, so
        // what the caller would have done is done here.
        if (error != nullptr) {
            reportLine(environment_.errorDescriptor, userText(*error));
        }
        environment_.endProcess(error == nullptr ? 0 : 1);
    }

    bool finish() {
        const std::string_view unfinished = control_.finish();
        if (!unfinished.empty()) {
            reportLine(environment_.errorDescriptor, unfinished);
        }
        return unfinished.empty();
    }

    const SessionOwner owner_;
    const HelperEnvironment& environment_;
    SessionControl control_;
    ControlChannel input_;
    ControlChannel output_;
    SessionWatchdog watchdog_;  // last: it uses what stands above, and ends first
};

}  // namespace

void runControlSession(const std::vector<std::string>& args, const HelperEnvironment& environment) {
    const SessionOwner owner = authenticate(args, environment);
    std::signal(SIGPIPE, SIG_IGN);  // a reader that is gone is a failed write, not our end
    environment.installStopHandlers();
    Session(owner, environment).serve();
}

}  // namespace ferovane
