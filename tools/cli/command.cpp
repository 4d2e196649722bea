// Hands what a family describes to CLI11.
#include "tools/cli/command.h"

#include "tools/base/errors.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace devaccess
{

//--- options --------------------------------------------------------------------------------------

option &option::required()
{
    is_->required();
    return *this;
}

option &option::check(std::function<std::string(const std::string &)> problem)
{
    is_->check(std::move(problem));
    return *this;
}

option &option::show_default()
{
    is_->capture_default_str();
    return *this;
}

option &option::excludes(const option &other)
{
    is_->excludes(other.is_);
    return *this;
}

option &option::takes_one()
{
    is_->expected(1);
    return *this;
}

option &option::proposals(chooser words)
{
    notes_->values[is_] = std::move(words);
    return *this;
}

option &option::choices(chooser words)
{
    return proposals(std::move(words)).check([](const std::string &word) {
        return word.empty() ? "it is empty" : "";
    });
}

option &option::paths()
{
    return choices([](const given_options &) { return std::vector<std::string>{any_path}; });
}

option &option::one_of(const std::vector<std::string> &words)
{
    const auto all = std::make_shared<const std::vector<std::string>>(words);
    is_->check([all](const std::string &word) {
        const bool is_known = std::find(all->begin(), all->end(), word) != all->end();
        return is_known ? "" : word + " not in {" + CLI::detail::join(*all) + "}";
    });
    notes_->values[is_] = [all](const given_options &) { return *all; };
    return *this;
}

namespace
{

// Those of a command above this one, which would go unheeded; the program's own are for all.
void refuse_options_above(const CLI::App &named)
{
    const CLI::App *above = named.get_parent();
    for (; above && above->get_parent(); above = above->get_parent())
        for (const CLI::Option *option : above->get_options())
            if (option->count() > 0)
                throw usage_error(option->get_name() + " is for '" + above->get_name() +
                                  "' itself, not for '" + named.get_name() + "'");
}

} // namespace

//--- commands -------------------------------------------------------------------------------------

option command::argument(const char *name, std::string &to, const char *meaning)
{
    return {*is_->add_option(name, to, meaning), *notes_};
}

option command::argument(const char *name, std::vector<std::string> &to, const char *meaning)
{
    return {*is_->add_option(name, to, meaning), *notes_};
}

option command::add_option(const char *names, const char *placeholder, std::string &to,
                           const std::string &meaning)
{
    return {*is_->add_option(names, to, meaning)->option_text(placeholder), *notes_};
}

option command::add_option(const char *names, const char *placeholder, std::vector<std::string> &to,
                           const std::string &meaning)
{
    CLI::Option *const added = is_->add_option(names, to, meaning);
    return {*added->option_text(placeholder)->allow_extra_args(false), *notes_};
}

option command::add_option(const char *names, const char *placeholder, unsigned &to,
                           const std::string &meaning)
{
    return {*is_->add_option(names, to, meaning)->option_text(placeholder), *notes_};
}

option command::add_option(const char *names, const char *placeholder, double &to,
                           const std::string &meaning)
{
    return {*is_->add_option(names, to, meaning)->option_text(placeholder), *notes_};
}

void command::add_flag(const char *names, bool &to, const char *meaning)
{
    is_->add_flag(names, to, meaning);
}

void command::add_family(const char *name, const char *description,
                         void (*describe)(command &family))
{
    list({name, description, [describe](command &family) {
              family.is_->require_subcommand(1);
              describe(family);
          }});
}

void command::add(const char *name, const char *description, void (*run)())
{
    list({name, description, [run](command &added) { added.on_run(run); }});
}

void command::list(listed_command below)
{
    notes_->listed[is_].push_back(std::move(below));
}

void command::on_run(std::function<void()> run)
{
    is_->require_subcommand(0, 1);
    is_->callback([app = is_, run = std::move(run)] {
        if (!app->get_subcommands().empty())
            return;
        refuse_options_above(*app);
        run();
    });
}

void command::footer(const char *text)
{
    is_->footer(text);
}

} // namespace devaccess
