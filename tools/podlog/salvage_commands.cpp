// Ways out of a damaged log: save, salvage, repair, reset.
#include "tools/base/files.h"
#include "tools/podlog/podlog_commands.h"

#include <ctime>
#include <filesystem>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace devaccess
{
namespace
{

// The bytes of a storage that is there.
std::string bytes_of(const log_storage &storage)
{
    const auto bytes = storage.bytes();
    if (!bytes)
        throw failure("read " + storage.path(), "it is missing", storage.way_out(bytes), ENOENT);
    return *bytes;
}

log_storage storage_of(const podlog_arguments &arguments, const std::vector<pod_card> &cards)
{
    return log_storage(arguments, card_of(arguments, cards));
}

void save(const podlog_arguments &arguments)
{
    const log_storage storage = storage_of(arguments, cards_for_reading());
    const std::string bytes = bytes_of(storage);
    write_file(arguments.target, bytes, !arguments.force);
    print_done(record()
                   .add_hidden("table", table_name())
                   .add("card", storage.card().name)
                   .add("file", arguments.target)
                   .add("bytes", bytes.size()));
}

//--- salvage --------------------------------------------------------------------------------------

// The records that are bad. A blank one is not, in a log of which nothing else is there.
std::vector<log_record> bad_records(const log_image &log)
{
    return log.is_blank() ? std::vector<log_record>() : log.wrong();
}

void print_salvaged(record shown, const log_image &log)
{
    record_set entries = {"entries", {}};
    for (const log_record &slot : log.good_entries())
        entries.rows.push_back(record().add("history", *slot.history).append(entry_row(log, slot)));
    shown.add("storage", log.layout().name).add(std::move(entries));
    print(add_records(shown, record_rows(bad_records(log))));
}

void salvage(const podlog_arguments &arguments)
{
    if (arguments.card.empty() == arguments.file.empty())
        throw usage_error("either CARD or --file FILE says what to salvage");
    if (!arguments.file.empty()) {
        const auto bytes = read_file(arguments.file);
        if (!bytes)
            throw failure("read " + arguments.file, "there is no such file",
                          "'devaccess podlog save' makes one", ENOENT);
        print_salvaged(record().add("file", arguments.file),
                       log_image(likely_layout(*bytes), *bytes));
        return;
    }
    const log_storage storage = storage_of(arguments, cards_for_reading());
    print_salvaged(record().add_hidden("table", table_name()).add("card", storage.card().name),
                   log_image(storage.layout(), bytes_of(storage)));
}

//--- repair ---------------------------------------------------------------------------------------

std::string file_to_save_to(const podlog_arguments &arguments, const log_storage &storage)
{
    if (!arguments.target.empty())
        return arguments.target;
    const std::string name = fmt::format("/var/tmp/podlog-{}-{:%Y%m%dT%H%M%SZ}",
                                         storage.card().name, fmt::gmtime(std::time(nullptr)));
    std::string file = name + ".bin";
    for (int copy = 2; std::filesystem::exists(file); ++copy)
        file = fmt::format("{}-{}.bin", name, copy);
    return file;
}

std::string plan_of(const log_image &log)
{
    return fmt::format("{} of its records are bad; {} entries would be kept",
                       log.wrong().size() + (log.missing() > 0 ? 1 : 0), log.good_entries().size());
}

// Only a device that ends too early takes less than what is written.
void write_repaired(const log_storage &storage, const podlog_arguments &arguments)
{
    try {
        storage.rewrite([&](const std::string &bytes) {
            return log_image(storage.layout(), bytes).repaired();
        });
    } catch (const failure &failed) {
        if (!storage.is_device())
            throw;
        throw failure("repair the log of " + storage.card().name, failed.what(),
                      podlog_command(arguments, "salvage " + storage.card().name) +
                          " shows what can be read; does the device have all its bytes?",
                      failed.error);
    }
}

void print_repaired(const log_storage &storage, const log_image &before, const std::string &file)
{
    record shown;
    shown.add("card", storage.card().name)
        .add("saved", file.empty() ? json() : json(file))
        .add("entries", storage.log().good_entries().size());
    print(add_records(shown, record_rows(bad_records(before))));
}

void repair(const podlog_arguments &arguments)
{
    const log_storage storage = storage_of(arguments, cards_for_writing());
    const std::string bytes = bytes_of(storage);
    const log_image log(storage.layout(), bytes);
    const std::string what = "repair the log of " + storage.card().name;
    if (log.is_blank() || log.holds_nothing())
        throw failure(what, "it holds nothing of a log", storage.way_out(bytes));
    if (log.is_good()) {
        print_repaired(storage, log, "");
        return;
    }
    if (!arguments.yes)
        throw failure(what, plan_of(log), storage.remedy(bytes));
    const std::string file = file_to_save_to(arguments, storage);
    write_file(file, bytes, true);
    note("what was there is saved in " + file);
    write_repaired(storage, arguments);
    print_repaired(storage, log, file);
}

//--- reset ----------------------------------------------------------------------------------------

std::string loss_of(const log_storage &storage, const log_image &log)
{
    return fmt::format("{} entries in {} histories{}", log.good_entries().size(),
                       log.written().size(),
                       storage.is_nvram() ? ", the status words and the fault flags" : "");
}

void reset(const podlog_arguments &arguments)
{
    const log_storage storage = storage_of(arguments, cards_for_writing());
    const log_image log(storage.layout(), storage.bytes().value_or(""));
    const std::string what = "reset the log of " + storage.card().name;
    if (!arguments.yes)
        throw failure(
            what, loss_of(storage, log) + " would be lost",
            podlog_command(arguments, "save " + storage.card().name + " FILE") + " keeps them, " +
                podlog_command(arguments, "reset " + storage.card().name + " --yes") + " goes on");
    if (const std::string lack = reset_storage(storage, what); !lack.empty())
        throw failure(what, lack, "does the storage have all its bytes, and the disk room?");
    note("lost: " + loss_of(storage, log));
    print_done(record()
                   .add("card", storage.card().name)
                   .add("lost_histories", log.written().size())
                   .add("lost_entries", log.good_entries().size()));
}

} // namespace

void add_podlog_salvage_commands(podlog_family &podlog)
{
    const auto &arguments = podlog.arguments;
    CLI::App *saving =
        podlog.add_for_card("save", "Save the storage's bytes as they are to a file", save);
    offer_paths(saving->add_option("FILE", arguments->target, "to make"))->required();
    saving->add_flag("--force", arguments->force, "replace a file that is there");
    podlog.add_places(saving);

    CLI::App *salvaging =
        podlog.add("salvage", "Show every good entry, whatever index and headers say", salvage);
    podlog.add_card(salvaging, "of which card")->required(false);
    offer_paths(salvaging->add_option("--file", arguments->file, "a storage that was saved"))
        ->option_text("FILE");
    podlog.add_places(salvaging);

    CLI::App *repairing = podlog.add_for_card(
        "repair", "Save a damaged log, then make it one that opens, with all good entries", repair);
    offer_paths(repairing->add_option("--save", arguments->target, "save there, not in /var/tmp"))
        ->option_text("FILE");
    podlog.add_eeprom(repairing);
    podlog.add_yes(repairing);

    podlog.add_yes(podlog.add_for_card("reset", "Format the storage, whatever it holds", reset));
}

} // namespace devaccess
