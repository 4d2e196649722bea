// A tar archive that grows in memory: ustar, with GNU's records for long names, which every tar and
// libarchive read. Written here so that the program needs no library for it.
#pragma once

#include <ctime>
#include <string>

namespace devaccess
{

class tar_archive
{
public:
    // All that it holds was changed at this moment.
    explicit tar_archive(time_t when) : when_(when) {}

    void add_file(const std::string &path, const std::string &bytes);
    void add_link(const std::string &path, const std::string &target);

    // Its bytes, once there is no more to add.
    const std::string &finish();

private:
    void add_long(char kind, const std::string &text);
    void add(char kind, const std::string &path, const std::string &target, unsigned mode,
             const std::string &bytes);

    time_t when_;
    std::string bytes_;
};

} // namespace devaccess
