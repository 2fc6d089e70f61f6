// corvane integrate and menu-action as the file managers meet them: the real program installing
// into private XDG folders; its files read by desktop-file-validate, GLib's key-file, markup and
// command-line parsers, and Python; Thunar's file merged and unmerged byte for byte.
#include <glib.h>

#include <map>
#include <regex>
#include <set>
#include <thread>

#include "CliFixture.h"
#include "Commands/CorvaneCommand.h"
#include "FileManagerMenus.h"
#include "Records/SharedState.h"
#include "ThunarActions.h"

namespace corvane::testing {
namespace {

using Menus = cli::FileManagerMenus;
using Strings = std::vector<std::string>;

// A command line split as Nemo, Thunar and GIO split it.
Strings words(const std::string& line) {
    int count = 0;
    char** argv = nullptr;
    if (!g_shell_parse_argv(line.c_str(), &count, &argv, nullptr)) return {"unparsable", line};
    Strings split(argv, argv + count);
    g_strfreev(argv);
    return split;
}

std::string keyFileString(const std::string& path, const std::string& group, const char* key) {
    GKeyFile* file = g_key_file_new();
    char* value = g_key_file_load_from_file(file, path.c_str(), G_KEY_FILE_NONE, nullptr)
                      ? g_key_file_get_string(file, group.c_str(), key, nullptr)
                      : nullptr;
    std::string text = value ? value : "(none)";
    g_free(value);
    g_key_file_free(file);
    return text;
}

// Each action's command by its unique id, as GMarkup, Thunar's parser, reads uca.xml.
std::map<std::string, std::string> thunarCommands(const std::string& text) {
    struct State {
        std::string element, id, command;
        std::map<std::string, std::string> commands;
    } state;
    GMarkupParser parser{};
    parser.start_element = [](GMarkupParseContext*, const char* name, const char**, const char**,
                              gpointer data,
                              GError**) { static_cast<State*>(data)->element = name; };
    parser.end_element = [](GMarkupParseContext*, const char* name, gpointer data, GError**) {
        auto* state = static_cast<State*>(data);
        if (std::string_view(name) == "action") state->commands[state->id] = state->command;
        state->element.clear();
    };
    parser.text = [](GMarkupParseContext*, const char* text, gsize size, gpointer data, GError**) {
        auto* state = static_cast<State*>(data);
        if (state->element == "unique-id") state->id.assign(text, size);
        if (state->element == "command") state->command.assign(text, size);
    };
    auto* context = g_markup_parse_context_new(&parser, GMarkupParseFlags(0), &state, nullptr);
    if (!g_markup_parse_context_parse(context, text.data(), gssize(text.size()), nullptr) ||
        !g_markup_parse_context_end_parse(context, nullptr))
        state.commands = {{"unparsable", text}};
    g_markup_parse_context_free(context);
    return state.commands;
}

class IntegrateTest : public CliTest {
protected:
    ProcessResult integrate(Strings words = {}, const std::string& program = CORVANE_PROGRAM) {
        words.insert(words.begin(), "integrate");
        return ProcessRunner::run(program, words, std::nullopt, 60.0);
    }
    // Every entry but folders under the two XDG folders, with its mode and bytes.
    std::map<std::string, std::string> installed() {
        std::map<std::string, std::string> files;
        for (const auto& folder : {data, config})
            for (const auto& entry : std::filesystem::recursive_directory_iterator(
                     folder, std::filesystem::directory_options::none, ignored))
                if (entry.is_symlink() || !entry.is_directory())
                    files[entry.path()] =
                        std::to_string(permissions(entry.path())) +
                        (entry.is_symlink() || !entry.is_regular_file() ? " not a file"
                                                                        : readFile(entry.path()));
        return files;
    }

    std::string data = root / "Data", config = root / "Config", uca = config + "/Thunar/uca.xml";
    ScopedVariable dataHome{"XDG_DATA_HOME", data};
    ScopedVariable configDirs{"XDG_CONFIG_DIRS", root / "System"};
    ScopedVariable runtime{"XDG_RUNTIME_DIR", root / "Runtime"};
    std::error_code ignored;
};

const std::string kUserActions =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<!-- mine -->\n<actions>\n"
    "<action>\n\t<icon>utilities-terminal</icon>\n\t<name>Open &amp; <![CDATA[go]]></name>\n"
    "\t<unique-id>1675343432134234-1</unique-id>\n\t<command a='&lt;x'>exo-open %f</command>\n"
    "\t<startup-notify/>\n</action>  </actions>";

TEST_F(IntegrateTest, InstallsEveryMenuOnceAndRemovesExactlyIt) {
    auto first = integrate();
    ASSERT_EQ(first.status, 0) << first.output;
    auto files = installed();
    EXPECT_EQ(files.size(), 8u);
    EXPECT_EQ(permissions(data + "/kio/servicemenus/corvane.desktop"), 0755u);
    EXPECT_EQ(permissions(data + "/nemo/actions/corvane-lock.nemo_action"), 0644u);
    ASSERT_EQ(integrate().status, 0);
    EXPECT_EQ(installed(), files);
    ASSERT_EQ(integrate({"--remove"}).status, 0);
    EXPECT_TRUE(installed().empty());
}

TEST_F(IntegrateTest, ThunarActionsOfTheUserAndTheSystemSurviveByteForByte) {
    struct {
        std::string system, user;  // empty: no file
        std::string afterRemoval;
    } cases[] = {
        {"", kUserActions, kUserActions},
        {"", "<actions/>\n", "<actions>\n</actions>\n"},
        // An earlier Corvane's action is replaced, wherever it was.
        {"",
         "<actions><action><unique-id> corvane-lock</unique-id><command>old</command></action>\n"
         "<action><unique-id>mine</unique-id></action></actions>",
         "<actions><action><unique-id>mine</unique-id></action></actions>"},
        // Thunar reads the user's file instead of the system's, so the system's actions come too.
        {kUserActions, "", ""},
    };
    for (const auto& each : cases) {
        std::filesystem::remove_all(config);
        if (!each.system.empty()) writeFile(root / "System/Thunar/uca.xml", each.system);
        if (!each.user.empty()) writeFile(uca, each.user);
        ASSERT_EQ(integrate().status, 0) << each.user;
        std::string merged = readFile(uca);
        EXPECT_EQ(cli::ThunarActions::withoutOurs(merged),
                  each.user.empty() ? each.system : each.afterRemoval);
        auto commands = thunarCommands(merged);
        EXPECT_EQ(std::count_if(commands.begin(), commands.end(),
                                [](auto& action) { return action.first.starts_with("corvane-"); }),
                  5);
        ASSERT_EQ(integrate().status, 0);
        EXPECT_EQ(readFile(uca), merged) << "twice is once";
        ASSERT_EQ(integrate({"--remove"}).status, 0);
        EXPECT_EQ(std::filesystem::exists(uca), !each.user.empty());
        if (!each.user.empty()) {
            EXPECT_EQ(readFile(uca), each.afterRemoval);
        }
    }
}

TEST_F(IntegrateTest, WhatIsNotCorvanesIsLeftUntouchedAndReported) {
    auto text = [](std::string contents) { return [=](auto& path) { writeFile(path, contents); }; };
    auto link = [&](auto& path) { std::filesystem::create_symlink(root / "mine.xml", path); };
    struct {
        std::string path;
        std::function<void(const std::string&)> make;
    } cases[] = {
        {uca, text("<actions><action></actions>")},
        {uca, text("<!DOCTYPE a [<!ENTITY x 'y'>]><actions/>")},
        {uca, text("<other/>")},
        {uca, text("<actions>\xff</actions>")},
        {uca, text("<actions>&nbsp;</actions><actions/>")},
        {uca, text("<actions>" + std::string(5 << 20, ' ') + "</actions>")},
        {uca, [](auto& path) { mkfifo(path.c_str(), 0644); }},
        {uca, link},
        {data + "/nemo/actions/corvane-lock.nemo_action", link},
        {data + "/nautilus-python/extensions/corvane.py", text("mine\n")},
    };
    for (const auto& each : cases) {
        std::filesystem::remove_all(data);
        std::filesystem::remove_all(config);
        writeFile(root / "mine.xml", kUserActions);
        std::filesystem::create_directories(std::filesystem::path(each.path).parent_path());
        each.make(each.path);
        auto before = installed();
        auto result = integrate();
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.output.find("Corvane left " + each.path + " untouched: "), 0u)
            << result.output;
        integrate({"--remove"});
        EXPECT_EQ(installed(), before) << "the others came and went: " << each.path;
        EXPECT_EQ(readFile(root / "mine.xml"), kUserActions);
    }
}

// The program under a path every format must quote, escape or spell as bytes; the file managers'
// parsers must read it back, and the Files extension must run it.
TEST_F(IntegrateTest, FileManagersRunTheProgramTheyWereGiven) {
    std::string program = root / "a b'c\"d$e`f\\g é/corvane";
    std::filesystem::create_directories(std::filesystem::path(program).parent_path());
    std::filesystem::copy_file(CORVANE_PROGRAM, program);
    ASSERT_EQ(integrate({}, program).status, 0);

    std::string service = data + "/kio/servicemenus/corvane.desktop";
    auto report = ProcessRunner::run("/usr/bin/desktop-file-validate", {service});
    // Dolphin's Type=Service is beyond the validator, which objects to exactly this much of it.
    EXPECT_EQ(
        std::regex_replace(report.output,
                           std::regex(".*: error: (.*\"all\" is an unregistered media type|key "
                                      "\"(MimeType|Actions)\" is present in group \"Desktop "
                                      "Entry\", but the type is \"Service\".*)\n"),
                           ""),
        "");
    auto thunar = thunarCommands(readFile(uca));
    for (const auto& action : Menus::actions) {
        std::string name(action.name);
        Strings runs{program, "menu-action", name, "%F"};
        std::string nemo = data + "/nemo/actions/corvane-" + name + ".nemo_action";
        EXPECT_EQ(keyFileString(nemo, "Nemo Action", "Name"), action.title);
        EXPECT_EQ(words(keyFileString(nemo, "Nemo Action", "Exec")), runs);
        std::string condition = keyFileString(nemo, "Nemo Action", "Conditions");
        EXPECT_EQ(words(condition.substr(0, condition.find_last_of(';'))),
                  (Strings{"exec", program, "menu-action", "--offers", name, "%F"}));
        EXPECT_EQ(keyFileString(service, "Desktop Action " + name, "Name"), action.title);
        EXPECT_EQ(words(keyFileString(service, "Desktop Action " + name, "Exec")), runs);
        EXPECT_EQ(words(thunar["corvane-" + name]), runs);
    }

    std::string extension = data + "/nautilus-python/extensions/corvane.py";
    auto compiled = ProcessRunner::run("/usr/bin/python3", {"-m", "py_compile", extension});
    ASSERT_EQ(compiled.status, 0) << compiled.output;
    // From here the program records how it is called, and Files is a stand-in module.
    std::string log = root / "log";
    std::filesystem::remove(program);
    writeFile(program, "#!/bin/sh\nprintf '%s|' \"$0\" \"$@\" >>" + log + "\necho >>" + log +
                           "\n[ \"$MENU\" = fail ] && exit 1\n"
                           "menu='[{\"title\": \"Lock\", \"url\": \"corvane://lock?path=%2Fa\"}]'\n"
                           "printf '%s' \"${MENU:-$menu}\"\n");
    chmod(program.c_str(), 0755);
    writeFile(root / "py/gi/__init__.py",
              "def require_version(name, version):\n"
              "    if version != '4.0':\n        raise ValueError(version)\n");
    writeFile(root / "py/gi/repository/__init__.py",
              "import types\n\n\nclass MenuItem:\n    def __init__(self, name, label):\n"
              "        self.label = label\n\n    def connect(self, signal, callback, *data):\n"
              "        self.activate = lambda: callback(self, *data)\n\n\n"
              "GObject = types.SimpleNamespace(GObject=type('GObject', (), {}))\n"
              "Nautilus = types.SimpleNamespace(MenuItem=MenuItem, "
              "MenuProvider=type('MenuProvider', (), {}))\n");
    writeFile(
        root / "py/files.py",
        "import importlib.util, sys\n"
        "found = importlib.util.spec_from_file_location('extension', sys.argv[1])\n"
        "extension = importlib.util.module_from_spec(found)\nfound.loader.exec_module(extension)\n"
        "files = [type('File', (), {'get_uri': lambda self, uri=uri: uri})() "
        "for uri in sys.argv[3:]]\nmenu = extension.CorvaneMenu()\n"
        "items = menu.get_file_items(*([None] if sys.argv[2] == 'window' else []), files)\n"
        "print(''.join(item.label + ';' for item in items))\n"
        "items and items[0].activate()\n");
    ScopedVariable pythonPath("PYTHONPATH", root / "py");
    std::string menu = program + "|menu|--json|";
    std::string opened = program + "|open-url|corvane://lock?path=%2Fa|\n";
    struct {
        std::optional<std::string> menu;  // what the program prints; "fail": it exits 1 instead
        std::string how;                  // Files 43 passes the files, earlier ones a window too
        Strings uris;
        std::string labels, calls;
    } cases[] = {
        {std::nullopt,
         "files",
         {"file:///a%20b/My%20Files", "file:///caf%FF"},
         "Lock;\n",
         menu + "/a b/My Files|/caf\xff|\n" + opened},
        {std::nullopt, "window", {"file:///a"}, "Lock;\n", menu + "/a|\n" + opened},
        {std::nullopt, "files", {"file:///a", "sftp://host/b"}, "\n", ""},
        {"fail", "files", {"file:///a"}, "\n", menu + "/a|\n"},
        {"[{\"title\": \"Lock\"", "files", {"file:///a"}, "\n", menu + "/a|\n"},
        {"[{\"title\": 3, \"url\": \"corvane://lock\"}]",
         "files",
         {"file:///a"},
         "\n",
         menu + "/a|\n"},
    };
    for (const auto& each : cases) {
        ScopedVariable fake("MENU", each.menu);
        std::filesystem::remove(log);
        Strings arguments{root / "py/files.py", extension, each.how};
        arguments.insert(arguments.end(), each.uris.begin(), each.uris.end());
        EXPECT_EQ(ProcessRunner::run("/usr/bin/python3", arguments, std::nullopt, 30.0).output,
                  each.labels)
            << each.uris[0];
        // open-url runs on its own, once the menu is gone.
        for (int wait = 0; wait < 100 && readFile(log).size() < each.calls.size(); ++wait)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(readFile(log), each.calls);
    }
    ASSERT_EQ(integrate({"--remove"}).status, 0);
    EXPECT_TRUE(listing(data + "/nautilus-python/extensions/__pycache__").empty());
}

TEST_F(IntegrateTest, MenuActionOffersWhatTheMenuOffers) {
    std::string a = root / "A.corvlock", b = root / "B.corvlock", plain = root / "Taxes";
    struct {
        std::optional<Strings> unlocked;  // none: the application's state is unknown
        Strings selection;
        std::set<std::string> offered;
    } cases[] = {
        {std::nullopt, {plain, root / "Notes.txt"}, {"lock"}},
        {std::nullopt, {a}, {"unlock", "lock-now", "remove-lock"}},
        {{{a}}, {a}, {"lock-now", "reveal"}},
        {{{}}, {a}, {"unlock", "remove-lock"}},
        {{{b}}, {a, b}, {"lock-now"}},
        {{{}}, {a, b}, {}},
        {std::nullopt, {a, plain}, {}},
    };
    std::string state = *SharedState::defaultURL();
    for (const auto& each : cases) {
        std::filesystem::remove(state);
        if (each.unlocked) SharedState{*each.unlocked, SharedState::currentBootTime()}.write(state);
        std::set<std::string> offered;
        for (const auto& action : Menus::actions) {
            Strings words{"menu-action", "--offers", std::string(action.name)};
            words.insert(words.end(), each.selection.begin(), each.selection.end());
            auto outcome = run(words);
            if (outcome.status == 0) offered.insert(std::string(action.name));
            EXPECT_LE(outcome.status, 1) << outcome.err;
        }
        EXPECT_EQ(offered, each.offered) << each.selection[0];
    }
    EXPECT_EQ(run({"menu-action", "open", a}).status, 2);
}

TEST_F(IntegrateTest, MenuActionHandsItsCommandsToTheApplication) {
    std::string a = root / "A.corvlock", b = root / "B.corvlock";
    std::string socketPath = root / "Runtime/corvane/command.sock";
    std::filesystem::create_directories(root / "Runtime/corvane");
    using Kind = CorvaneCommand::Kind;
    struct {
        Strings words;
        std::vector<CorvaneCommand> delivered;
    } cases[] = {
        {{"lock", a, root / "My Files"}, {{Kind::lock, {a, root / "My Files"}}}},
        // A menu that cannot tell items apart: one command each for an action on one item.
        {{"unlock", a, b}, {{Kind::unlock, {a}}, {Kind::unlock, {b}}}},
    };
    for (const auto& each : cases) {
        std::filesystem::remove(socketPath);
        SocketListener application(socketPath, each.delivered.size());
        Strings words{"menu-action"}, expected;
        words.insert(words.end(), each.words.begin(), each.words.end());
        auto outcome = run(words);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        for (const auto& command : each.delivered) expected.push_back(command.url());
        EXPECT_EQ(application.lines(), expected);
    }
}

TEST(FileManagerMenusTest, PackagedMenusAreTheSystemWideCopies) {
    for (const auto& file : Menus::dataFiles("/usr/bin/corvane", Menus::Copy::systemWide))
        EXPECT_EQ(readFile(std::string(CORVANE_TEST_DATA) + "/../../packaging/menus/" + file.path),
                  file.contents)
            << file.path;
}

}  // namespace
}  // namespace corvane::testing
