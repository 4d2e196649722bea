// A machine out of an archive of 'devaccess collect'. The archive may come from anywhere: nothing
// of it is written, and its links lead nowhere but to what is in it.
#pragma once

#include "tools/base/machine_source.h"

#include <map>

namespace devaccess
{

// What of an archive is kept in memory.
enum class archive_part {
    all,
    logs, // and what its manifest says
};

class archived_machine : public machine_source
{
public:
    // Fails when the file is no such archive, whole and harmless.
    archived_machine(const std::string &file, archive_part part);

    std::string archive() const override { return file_; }
    const machine_facts &facts() const override { return facts_; }
    std::optional<std::string> read(const std::string &path) const override;
    std::vector<std::string> names_in(const std::string &directory) const override;
    std::string target(const std::string &path) const override;
    std::string real_path(const std::string &path) const override;

private:
    struct reader;
    void read_manifest(const std::string &text);
    std::string resolved(const std::string &path) const;
    bool is_directory(const std::string &path) const;

    std::string file_;
    machine_facts facts_;
    std::map<std::string, std::string> files_; // by their absolute paths
    std::map<std::string, std::string> links_;
    std::map<std::string, std::string> left_out_; // why they are missing
};

} // namespace devaccess
