// Fills a template with what the command line defines: generate bash|zsh|man TEMPLATE OUTPUT.
// The lines @COMMANDS@ and @TYPES@ of the template are replaced.
#include "command_line.h"

#include <cstdio>
#include <fstream>
#include <iostream>

namespace {

// One command: "holidays add", its options and then its arguments.
struct entry {
  std::string path;
  const CLI::App *app;

  // "cancel", "rm" and "delete" with such words between them, each in such quotes.
  std::string names(const char *between, const char *quote = "") const {
    std::string all = quote + path + quote;
    const std::string above = path.substr(0, path.rfind(' ') + 1);
    for (const std::string &alias : app->get_aliases())
      all.append(between).append(quote).append(above).append(alias).append(quote);
    return all;
  }
};

using writer = void (*)(const entry &, const std::vector<const CLI::Option *> &);

} // namespace

static const command_line kLine({"help"});

static std::vector<entry> commands_of(const CLI::App &above, const std::string &path) {
  std::vector<entry> all;
  for (const CLI::App *app : above.get_subcommands({})) {
    const std::string name = path.empty() ? app->get_name() : path + " " + app->get_name();
    all.push_back({name, app});
    for (const entry &below : commands_of(*app, name))
      all.push_back(below);
  }
  return all;
}

static std::string replaced(std::string text, const std::string &what, const std::string &with) {
  for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
    text.replace(at, what.size(), with);
  return text;
}

static bool takes_value(const CLI::Option *option) { return option->get_items_expected_max() > 0; }

static bool is_repeated(const CLI::Option *option) { return option->get_items_expected_max() > 1; }

static std::string long_name(const CLI::Option *option) { return option->get_lnames().front(); }

// --- bash: the words that may follow, "--at=TIME" where an option takes a value, "ID" for an id
// ---

static void write_bash(const entry &entry, const std::vector<const CLI::Option *> &options) {
  std::cout << "    " << entry.names("|", "'") << ") echo '";
  for (const CLI::App *below : entry.app->get_subcommands({}))
    std::cout << below->get_name() << ' ';
  for (const CLI::Option *option : options) {
    if (option->get_positional())
      std::cout << option->get_name(true) << ' ';
    else
      std::cout << "--" << long_name(option)
                << (takes_value(option) ? "=" + option->get_type_name() : "") << ' ';
  }
  std::cout << "' ;;\n";
}

// --- zsh: the same as arguments of _arguments, with their help. It puts its own options behind the
// first word of an action that does not begin with a blank ---

static std::string zsh_text(const std::string &text) {
  return replaced(replaced(replaced(replaced(text, "'", "'\\''"), ":", "\\:"), "[", "\\["), "]",
                  "\\]");
}

static void write_zsh(const entry &entry, const std::vector<const CLI::Option *> &options) {
  std::cout << "    " << entry.names("|", "'") << ") flags=(";
  for (const CLI::Option *option : options) {
    const std::string help = zsh_text(option->get_description());
    if (option->get_positional())
      std::cout << "\n      '" << (is_repeated(option) ? "*" : "") << ":" << help
                << ": _dravelctl_value " << option->get_name(true) << "'";
    else
      std::cout << "\n      '" << (is_repeated(option) ? "*" : "") << "--" << long_name(option)
                << (takes_value(option) ? "=[" : "[") << help << "]"
                << (takes_value(option) ? ":value: _dravelctl_value " + option->get_type_name()
                                        : "")
                << "'";
  }
  std::cout << ")\n      commands=(";
  for (const CLI::App *below : entry.app->get_subcommands({}))
    std::cout << "\n        '" << below->get_name() << ":" << zsh_text(below->get_description())
              << "'";
  std::cout << ") ;;\n";
}

// --- the manual page, in mdoc ---

static std::string mdoc_text(const std::string &text) { return replaced(text, "\\", "\\e"); }

static std::string short_names(const CLI::Option *option) {
  std::string all;
  for (const std::string &name : option->get_snames())
    all += "Fl " + name + " , ";
  return all;
}

static void write_man_options(const std::vector<const CLI::Option *> &options) {
  std::cout << ".Bl -tag -width Ds -compact\n";
  for (const CLI::Option *option : options) {
    if (option->get_positional())
      std::cout << ".It Ar " << option->get_name(true);
    else
      std::cout << ".It " << short_names(option) << "Fl -" << long_name(option)
                << (takes_value(option) ? " Ar " + option->get_type_name() : "");
    std::cout << '\n' << wrapped(mdoc_text(option->get_description()), kTextWidth) << '\n';
  }
  std::cout << ".El\n";
}

static void write_man(const entry &entry, const std::vector<const CLI::Option *> &options) {
  if (entry.path.empty())
    return;
  std::cout << ".It Cm " << entry.names(" | ");
  for (const CLI::Option *option : options)
    if (option->get_positional())
      std::cout << (option->get_required() ? " Ar " : " Op Ar ") << option->get_name(true)
                << (is_repeated(option) ? " ..." : "");
  std::cout << '\n' << mdoc_text(entry.app->get_description()) << ".\n";
  if (!options.empty())
    write_man_options(options);
  const std::string footer = entry.app->get_footer(); // "Example: ...", and more lines
  std::cout << "Example:\n.Dl " << mdoc_text(footer.substr(9, footer.find('\n') - 9)) << '\n';
}

static void write_types(const std::string &format) {
  for (const timer_type &type : kTimerTypes) {
    if (format == "man")
      std::cout << ".It " << type.word << " Ta " << type.number << " Ta " << type.meaning << '\n';
    else
      std::cout << type.word << ' ';
  }
}

// --- the template ---

static void write_commands(const std::string &format) {
  const writer write = format == "man" ? write_man : format == "zsh" ? write_zsh : write_bash;
  const auto visible = [](const CLI::Option *option) { return option->get_name() != "--help"; };
  const auto everywhere = kLine.app().get_options([](const CLI::Option *option) {
    return option->get_name() == "--json" || option->get_name() == "--timeout";
  });
  auto entries = commands_of(kLine.app(), "");
  entries.insert(entries.begin(), {"", &kLine.app()});
  for (const entry &entry : entries) {
    auto options = entry.app->get_options(visible);
    if (!entry.path.empty() && format != "man")
      options.insert(options.end(), everywhere.begin(), everywhere.end());
    write(entry, options);
  }
}

int main(int argc, char **argv) {
  if (argc != 4)
    return static_cast<int>(fault::kUsage);
  const std::string format = argv[1];
  std::ifstream page(argv[2]);
  if (std::freopen(argv[3], "w", stdout) == nullptr)
    return 1;
  for (std::string line; std::getline(page, line);) {
    if (line == "@COMMANDS@")
      write_commands(format);
    else if (line == "@TYPES@")
      write_types(format);
    else
      std::cout << line << '\n';
  }
  return std::cout.flush() ? 0 : 1;
}
