// Writes tar archives with libarchive.
#include "tools/base/tar_archive.h"

#include "tools/base/errors.h"
#include "tools/base/shared_library.h"

#include <archive.h>
#include <archive_entry.h>

namespace devaccess
{
namespace
{

constexpr char making[] = "make the archive";

const shared_library &libarchive()
{
    static const shared_library library("libarchive.so.13", making);
    return library;
}

// A function of the library that is loaded.
#define LIBARCHIVE(function) libarchive().find<decltype(function)>(#function)

la_ssize_t append(struct archive *, void *bytes, const void *more, size_t size)
{
    static_cast<std::string *>(bytes)->append(static_cast<const char *>(more), size);
    return static_cast<la_ssize_t>(size);
}

} // namespace

tar_archive::tar_archive(time_t when)
    : when_(when), archive_(LIBARCHIVE(archive_write_new)(), LIBARCHIVE(archive_write_free))
{
    expect_done(LIBARCHIVE(archive_write_set_format_pax_restricted)(archive_.get()));
    expect_done(LIBARCHIVE(archive_write_open)(archive_.get(), &bytes_, nullptr, append, nullptr));
}

void tar_archive::add_file(const std::string &path, const std::string &bytes)
{
    const entry head = new_entry(path, AE_IFREG, 0644);
    LIBARCHIVE(archive_entry_set_size)(head.get(), static_cast<la_int64_t>(bytes.size()));
    write(head.get(), bytes);
}

void tar_archive::add_link(const std::string &path, const std::string &target)
{
    const entry head = new_entry(path, AE_IFLNK, 0777);
    LIBARCHIVE(archive_entry_set_symlink)(head.get(), target.c_str());
    write(head.get(), "");
}

const std::string &tar_archive::finish()
{
    expect_done(LIBARCHIVE(archive_write_close)(archive_.get()));
    return bytes_;
}

tar_archive::entry tar_archive::new_entry(const std::string &path, unsigned type,
                                          unsigned mode) const
{
    entry head(LIBARCHIVE(archive_entry_new)(), LIBARCHIVE(archive_entry_free));
    LIBARCHIVE(archive_entry_set_pathname)(head.get(), path.c_str());
    LIBARCHIVE(archive_entry_set_filetype)(head.get(), type);
    LIBARCHIVE(archive_entry_set_perm)(head.get(), mode);
    LIBARCHIVE(archive_entry_set_mtime)(head.get(), when_, 0);
    return head;
}

void tar_archive::write(archive_entry *head, const std::string &bytes)
{
    expect_done(LIBARCHIVE(archive_write_header)(archive_.get(), head));
    if (LIBARCHIVE(archive_write_data)(archive_.get(), bytes.data(), bytes.size()) < 0)
        expect_done(ARCHIVE_FATAL);
}

void tar_archive::expect_done(int status) const
{
    if (status != ARCHIVE_OK)
        throw failure(making, LIBARCHIVE(archive_error_string)(archive_.get()), "");
}

} // namespace devaccess
