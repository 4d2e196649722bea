// A tar archive that grows in memory. It is libarchive's, which is loaded when the first one is
// made, so that no other command waits for it.
#pragma once

#include <ctime>
#include <memory>
#include <string>

struct archive;
struct archive_entry;

namespace devaccess
{

class tar_archive
{
public:
    // All that it holds was changed at this moment.
    explicit tar_archive(time_t when);

    void add_file(const std::string &path, const std::string &bytes);
    void add_link(const std::string &path, const std::string &target);

    // Its bytes, once there is no more to add.
    const std::string &finish();

private:
    using entry = std::unique_ptr<archive_entry, void (*)(archive_entry *)>;

    entry new_entry(const std::string &path, unsigned type, unsigned mode) const;
    void write(archive_entry *head, const std::string &bytes);
    void expect_done(int status) const;

    time_t when_;
    std::string bytes_;
    std::unique_ptr<archive, int (*)(archive *)> archive_;
};

} // namespace devaccess
