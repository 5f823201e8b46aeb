// ppsctl: looks at the objects of the object service, and changes them. This file knows the command
// line and nothing else.

#include <CLI/CLI.hpp>
#include <functional>

#include "tools/common/validators.hpp"
#include "tools/ppsctl/verbs.hpp"

namespace {

constexpr const char* kFooter =
    "A PATH is absolute (/pps/services/push/ipc) or below /pps (services/push/ipc).\n"
    "Exit status: 0 done, 1 refused, 2 usage, 3 object service or object not\n"
    "there, 4 time-out. QUIL_ROOT sets the folder below which /pps is looked for.";

struct Typed {
    std::string path = "/pps";
    std::vector<std::string> words;
    WatchOptions watch;
    bool isCreating = false;
    bool json = false;
    std::function<ExitStatus()> run;
};

void addReading(CLI::App& app, Typed& typed) {
    CLI::App* list = app.add_subcommand("ls", "List a folder: mode, owner, name");
    list->add_option("PATH", typed.path, "Folder or object")->check(validators::notEmpty());
    list->add_flag("--json", typed.json, "One JSON object per line");
    list->callback(
        [&typed] { typed.run = [&typed] { return listObjects(typed.path, typed.json); }; });

    CLI::App* show = app.add_subcommand("cat", "Show an object's attributes");
    show->add_option("PATH", typed.path, "Object")->required()->check(validators::notEmpty());
    show->add_flag("--json", typed.json, "One JSON object per line");
    show->callback(
        [&typed] { typed.run = [&typed] { return showObject(typed.path, typed.json); }; });

    CLI::App* clients = app.add_subcommand("clients", "Show who has a served object open");
    clients->add_option("PATH", typed.path, "Object")->required()->check(validators::notEmpty());
    clients->add_flag("--json", typed.json, "One JSON object per line");
    clients->callback(
        [&typed] { typed.run = [&typed] { return showClients(typed.path, typed.json); }; });

    CLI::App* watch = app.add_subcommand("watch", "Show an object and each change as it comes");
    watch->add_option("PATH", typed.watch.path, "Object")
        ->required()
        ->check(validators::notEmpty());
    watch->add_flag("--json", typed.watch.json, "One JSON object per line");
    watch->add_option("--count", typed.watch.count, "End after N texts, the first one included")
        ->type_name("N")
        ->check(validators::positive());
    watch->add_option("--timeout", typed.watch.timeoutSeconds, "Give up after S seconds")
        ->type_name("S")
        ->check(validators::seconds());
    watch->callback([&typed] { typed.run = [&typed] { return watchObject(typed.watch); }; });
}

void addWriting(CLI::App& app, Typed& typed) {
    CLI::App* write = app.add_subcommand("write", "Set and remove attributes, all at once");
    write->add_option("PATH", typed.path, "Object")->required()->check(validators::notEmpty());
    write
        ->add_option("ATTRIBUTE", typed.words,
                     "name=value, name:encoding:value, or -name to\n"
                     "remove (type -- in front of PATH then)")
        ->required();
    write->add_flag("--create", typed.isCreating, "Create the object if there is none");
    write->add_flag("--json", typed.json, "One JSON object per line");
    write->callback([&typed] {
        typed.run = [&typed] {
            return writeObject(typed.path, typed.words, typed.isCreating, typed.json);
        };
    });

    CLI::App* remove = app.add_subcommand("rm", "Remove objects and empty folders");
    remove->add_option("PATH", typed.words, "Objects, folders")
        ->required()
        ->check(validators::notEmpty());
    remove->add_flag("--json", typed.json, "One JSON object per line");
    remove->callback(
        [&typed] { typed.run = [&typed] { return removeObjects(typed.words, typed.json); }; });
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Look at the objects of the object service, and change them.", "ppsctl");
    app.require_subcommand(1);
    app.footer(kFooter);
    Typed typed;
    addReading(app, typed);
    addWriting(app, typed);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kDone : kUsage;
    }
    return typed.run();
}
