// quilctl: what people type to talk to the push agent. This file knows the command line and nothing
// else; each verb is a function of its own.

#include <CLI/CLI.hpp>
#include <functional>

#include "tools/common/validators.hpp"
#include "tools/quilctl/clients.hpp"
#include "tools/quilctl/codes.hpp"
#include "tools/quilctl/listen.hpp"
#include "tools/quilctl/monitor.hpp"
#include "tools/quilctl/rules.hpp"
#include "tools/quilctl/status.hpp"
#include "tools/quilctl/trace.hpp"
#include "tools/quilctl/verbs.hpp"

namespace {

using quilclient::Request;
using quilclient::Verb;

constexpr const char* kFooter =
    "Exit status: 0 done, 1 refused (code and meaning are shown), 2 usage,\n"
    "3 agent or object service not there, or a file not to be read, 4 time-out.\n"
    "QUIL_ROOT sets the folder below which /pps and /etc/quilagent.conf are\n"
    "looked for. Colours: only on a terminal, never with NO_COLOR.";

// As long as two HTTP requests of a minute each may take, and some.
constexpr double kRequestSeconds = 150;

// How long the agent and the object service may each take to show that they are there.
constexpr double kLookSeconds = 5;

// What was typed.
struct Typed {
    ListenOptions listen;
    bool isAccept = false;
    bool isReject = false;
    bool isAsk = false;
    Request request;
    double timeoutSeconds = kRequestSeconds;
    bool json = false;
    std::optional<int> code;
    std::string logFile = "-";
    std::string clientsLog;  // "" for none
    double slowSeconds = 1;
    double lookSeconds = kLookSeconds;
    MonitorOptions monitor;
    bool isChecking = false;
    std::string user;
    std::string rulesFile;  // "" for that of the configuration
    std::function<ExitStatus()> run;
};

void addListen(CLI::App& app, Typed& typed) {
    CLI::App* verb =
        app.add_subcommand("listen", "Play an application: show and answer its pushes");
    ListenOptions& options = typed.listen;
    verb->add_option("APP", options.appId, "Provider application id")
        ->required()
        ->check(validators::notEmpty());
    verb->add_option("--ppg", options.ppgUrl, "URL of the push server")
        ->required()
        ->check(validators::notEmpty());
    CLI::Option* accept = verb->add_flag("--accept", typed.isAccept,
                                         "Accept every push; without it, and without the\n"
                                         "next three, all but those that came short");
    CLI::Option* reject = verb->add_flag("--reject", typed.isReject, "Reject every push");
    CLI::Option* ask = verb->add_flag("--ask", typed.isAsk, "Ask for each push whose sender waits");
    CLI::Option* exec = verb->add_option("--exec", options.command,
                                         "Run CMD in a shell for each push: data on its\n"
                                         "standard input; QUIL_PUSH_ID, QUIL_HEADERS and\n"
                                         "more in its environment; exit status 0 accepts");
    exec->type_name("CMD")->check(validators::notEmpty());
    accept->excludes(reject)->excludes(ask)->excludes(exec);
    reject->excludes(ask)->excludes(exec);
    ask->excludes(exec);
    verb->add_option("--save", options.directory,
                     "Write each push to files in DIR before the answer")
        ->type_name("DIR")
        ->check(validators::notEmpty());
    verb->add_flag("--json", options.json, "One JSON object per line");
    verb->add_option("--count", options.count, "End after N pushes")
        ->type_name("N")
        ->check(validators::positive());
    verb->add_option("--timeout", options.timeoutSeconds, "Give up after S seconds, exit status 4")
        ->type_name("S")
        ->check(validators::seconds());
    verb->callback([&typed, exec] {
        using Mode = ListenOptions::Mode;
        typed.listen.mode = typed.isReject      ? Mode::Reject
                            : typed.isAsk       ? Mode::Ask
                            : exec->count() > 0 ? Mode::Command
                                                : Mode::Accept;
        typed.listen.acceptsShort = typed.isAccept;
        typed.run = [&typed] { return listen(typed.listen); };
    });
}

CLI::App* addRequest(CLI::App& app, Typed& typed, const char* name, Verb kind, const char* help) {
    CLI::App* verb = app.add_subcommand(name, help);
    verb->add_option("APP", typed.request.appId, "Provider application id")
        ->required()
        ->check(validators::notEmpty());
    verb->add_flag("--json", typed.json, "One JSON object per line");
    verb->add_option("--timeout", typed.timeoutSeconds, "Wait S seconds for the answer")
        ->type_name("S")
        ->capture_default_str()
        ->check(validators::seconds());
    verb->callback([&typed, name, kind] {
        typed.request.verb = kind;
        typed.run = [&typed, name] {
            return makeRequest(name, typed.request, typed.timeoutSeconds, typed.json);
        };
    });
    return verb;
}

void addQueryChannel(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("query-channel",
                                        "Tell how a channel stands;\n"
                                        "exit status 1 when none does");
    verb->add_option("APP", typed.request.appId, "Provider application id")
        ->required()
        ->check(validators::notEmpty());
    verb->add_flag("--json", typed.json, "One JSON object per line");
    verb->add_option("--timeout", typed.lookSeconds, "Wait S seconds for the answer")
        ->type_name("S")
        ->capture_default_str()
        ->check(validators::seconds());
    verb->callback([&typed] {
        typed.run = [&typed] {
            return queryChannel(typed.request.appId, typed.lookSeconds, typed.json);
        };
    });
}

void addArgument(CLI::App* verb, Typed& typed, const char* name, const char* help) {
    verb->add_option(name, typed.request.argument, help)->required()->check(validators::notEmpty());
}

void addRequests(CLI::App& app, Typed& typed) {
    addRequest(app, typed, "create-session", Verb::CreateSession, "Create a session");
    CLI::App* channel = addRequest(app, typed, "create-channel", Verb::CreateChannel,
                                   "Register a session with its push server");
    addArgument(channel, typed, "--ppg", "URL of the push server");
    addRequest(app, typed, "destroy-channel", Verb::DestroyChannel,
               "Deregister from the push server and stop listening");
    addQueryChannel(app, typed);
    CLI::App* launch = addRequest(app, typed, "register-launch", Verb::RegisterToLaunch,
                                  "Set what is launched for a push");
    addArgument(launch, typed, "STRING", "Launch string");
    addRequest(app, typed, "unregister-launch", Verb::UnregisterFromLaunch,
               "Clear the launch string");
    CLI::App* accept =
        addRequest(app, typed, "accept", Verb::AcceptPush, "Accept a push that waits");
    addArgument(accept, typed, "PUSHID", "Id of the push, its leading blank included");
    CLI::App* reject =
        addRequest(app, typed, "reject", Verb::RejectPush, "Reject a push that waits");
    addArgument(reject, typed, "PUSHID", "Id of the push, its leading blank included");
}

void addCodes(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("codes", "Explain numbers: err, rc, libcurl's");
    verb->add_option("CODE", typed.code, "Only this number, in all that it can mean")
        ->check(validators::wholeNumber());
    verb->add_flag("--json", typed.json, "One JSON object per line");
    verb->callback(
        [&typed] { typed.run = [&typed] { return explainCodes(typed.code, typed.json); }; });
}

void addLookTimeout(CLI::App* verb, Typed& typed) {
    verb->add_option("--timeout", typed.lookSeconds,
                     "Wait S seconds for the object service,\nand for the agent")
        ->type_name("S")
        ->capture_default_str()
        ->check(validators::seconds());
}

void addStatus(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("status", "Show what runs, and with what settings");
    verb->add_flag("--check", typed.isChecking,
                   "Explain what is wrong and what to do;\n"
                   "exit status 1 when something is");
    verb->add_flag("--json", typed.json, "One JSON object per line");
    addLookTimeout(verb, typed);
    verb->callback([&typed] {
        typed.run = [&typed] {
            return typed.isChecking ? checkStatus(typed.json, typed.lookSeconds)
                                    : showStatus(typed.json, typed.lookSeconds);
        };
    });
}

void addClients(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("clients", "Show who is connected to the agent");
    verb->add_option("--log", typed.clientsLog,
                     "The agent's log, of -v -v, - for standard\n"
                     "input: for which applications each one is")
        ->type_name("LOG")
        ->check(validators::notEmpty());
    verb->add_flag("--json", typed.json, "One JSON object per line");
    addLookTimeout(verb, typed);
    verb->callback([&typed] {
        typed.run = [&typed] {
            return showClients(typed.clientsLog, typed.json, typed.lookSeconds);
        };
    });
}

void addTrace(CLI::App& app, Typed& typed) {
    CLI::App* verb =
        app.add_subcommand("trace", "Show where the time of each push and channel went");
    verb->add_option("LOG", typed.logFile, "The agent's log; - or nothing: standard input")
        ->check(validators::notEmpty());
    verb->add_flag("--json", typed.json, "One JSON object per line");
    verb->add_option("--slow", typed.slowSeconds, "Mark what took longer than S seconds (1)")
        ->type_name("S")
        ->check(validators::seconds());
    verb->callback([&typed] {
        typed.run = [&typed] { return traceLog(typed.logFile, typed.slowSeconds, typed.json); };
    });
}

void addMonitor(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("monitor", "Show pushes and requests as they happen");
    MonitorOptions& options = typed.monitor;
    verb->add_option("LOG", options.log,
                     "The agent's log, also when it is rotated;\n"
                     "- is standard input, nothing the journal")
        ->check(validators::notEmpty());
    verb->add_option("--app", options.appId, "Only what concerns this application")
        ->type_name("APP")
        ->check(validators::notEmpty());
    verb->add_flag("--all", options.fromStart, "Also what the log holds already");
    verb->add_flag("--json", options.json, "One JSON object per line");
    verb->callback([&typed] { typed.run = [&typed] { return monitorLog(typed.monitor); }; });
}

void addRules(CLI::App& app, Typed& typed) {
    CLI::App* verb = app.add_subcommand("rules", "Check the rules of who may act for what");
    verb->require_subcommand(1);
    CLI::App* check =
        verb->add_subcommand("check", "Name each bad line; exit status 1 when there is one");
    check->add_option("FILE", typed.rulesFile, "Rules file (that of the configuration)")
        ->check(validators::notEmpty());
    check->add_flag("--json", typed.json, "One JSON object per line");
    check->callback(
        [&typed] { typed.run = [&typed] { return checkRules(typed.rulesFile, typed.json); }; });
    CLI::App* explain =
        verb->add_subcommand("explain", "Say which line lets a user act for an application");
    explain->add_option("USER", typed.user, "User name or number")
        ->required()
        ->check(validators::notEmpty());
    explain->add_option("APP", typed.request.appId, "Provider application id")
        ->required()
        ->check(validators::notEmpty());
    explain->add_option("--file", typed.rulesFile, "Rules file (that of the configuration)")
        ->type_name("FILE")
        ->check(validators::notEmpty());
    explain->add_flag("--json", typed.json, "One JSON object per line");
    explain->callback([&typed] {
        typed.run = [&typed] {
            return explainRules(typed.user, typed.request.appId, typed.rulesFile, typed.json);
        };
    });
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Talk to the push agent from the command line.", "quilctl");
    app.require_subcommand(1);
    app.footer(kFooter);
    Typed typed;
    addListen(app, typed);
    addRequests(app, typed);
    addStatus(app, typed);
    addClients(app, typed);
    addTrace(app, typed);
    addMonitor(app, typed);
    addRules(app, typed);
    addCodes(app, typed);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return typed.run();
}
