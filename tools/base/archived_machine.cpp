// Reads an archive of a machine with libarchive, into memory.
#include "tools/base/archived_machine.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/base/rights.h"
#include "tools/base/shared_library.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

constexpr int64_t largest_file = 1 << 20;
constexpr int64_t largest_archive = 256 << 20;
constexpr size_t most_entries = 500000;
constexpr size_t most_names = 8192; // in a directory: functions, slots, nodes
constexpr int most_links = 40;      // on the way to a file, as for the kernel
constexpr size_t longest_path = 4096;
constexpr size_t longest_host = 255;
constexpr size_t longest_text = 4096; // in the manifest
constexpr int deepest_manifest = 8;
constexpr int64_t block_size = 512; // of a tar archive

struct archive_library : shared_library {
    archive_library() : shared_library("libarchive.so.13", "read an archive") {}

#define ARCHIVE_CALL(name) decltype(::name) *const name = find<decltype(::name)>(#name)
    ARCHIVE_CALL(archive_read_new);
    ARCHIVE_CALL(archive_read_free);
    ARCHIVE_CALL(archive_read_support_format_tar);
    ARCHIVE_CALL(archive_read_support_filter_gzip);
    ARCHIVE_CALL(archive_read_support_filter_xz);
    ARCHIVE_CALL(archive_read_support_filter_zstd);
    ARCHIVE_CALL(archive_read_open_fd);
    ARCHIVE_CALL(archive_read_next_header);
    ARCHIVE_CALL(archive_read_data);
    ARCHIVE_CALL(archive_filter_bytes);
    ARCHIVE_CALL(archive_entry_pathname);
    ARCHIVE_CALL(archive_entry_filetype);
    ARCHIVE_CALL(archive_entry_hardlink);
    ARCHIVE_CALL(archive_entry_symlink);
    ARCHIVE_CALL(archive_entry_size);
#undef ARCHIVE_CALL
};

const archive_library &library()
{
    static const archive_library loaded;
    return loaded;
}

[[noreturn]] void refuse(const std::string &file, const std::string &why)
{
    throw failure("read the archive " + file, why, "'devaccess collect' makes one", 0,
                  exit_unreadable);
}

int open_regular(const std::string &file)
{
    const int descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        throw failure("read the archive " + file, std::strerror(errno), "is the name right?", errno,
                      exit_unreadable);
    struct stat status = {};
    if (::fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode))
        return descriptor;
    ::close(descriptor);
    refuse(file, "it is no regular file");
}

bool leads_astray(const fs::path &path)
{
    return path.is_absolute() || path.empty() ||
           std::any_of(path.begin(), path.end(), [](const auto &part) { return part == ".."; });
}

bool is_of_logs(const std::string &path)
{
    return path.starts_with("/dev/") || path.starts_with("/var/pod/");
}

std::string without_compression(const std::string &file)
{
    std::string name = fs::path(file).filename();
    return name.substr(0, name.find(".tar"));
}

} // namespace

//--- reading --------------------------------------------------------------------------------------

struct archived_machine::reader {
    explicit reader(const std::string &archive_file)
        : file(archive_file), descriptor(open_regular(archive_file)),
          tar(library().archive_read_new(), library().archive_read_free)
    {
        library().archive_read_support_format_tar(tar.get());
        library().archive_read_support_filter_gzip(tar.get());
        library().archive_read_support_filter_xz(tar.get());
        library().archive_read_support_filter_zstd(tar.get());
    }
    ~reader()
    {
        tar.reset();
        ::close(descriptor);
    }
    reader(const reader &) = delete;
    reader &operator=(const reader &) = delete;

    // False at the end.
    bool next()
    {
        const int result = library().archive_read_next_header(tar.get(), &entry);
        const int64_t position = library().archive_filter_bytes(tar.get(), 0);
        if (result == ARCHIVE_EOF && entries > 0 && position < end + block_size)
            refuse(file, "it is cut"); // after a member, without the blank blocks of the end
        if (result == ARCHIVE_EOF)
            return false;
        if (result != ARCHIVE_OK)
            refuse(file, "it is damaged, cut or no tar archive");
        size = library().archive_entry_size(entry);
        end = position;
        if (position > largest_archive || ++entries > most_entries)
            refuse(file, "it is too large for one of a machine");
        return true;
    }

    // A sparse file is small in the archive, and is not here.
    std::string bytes()
    {
        end += (size + block_size - 1) / block_size * block_size;
        total += size;
        if (total > largest_archive)
            refuse(file, "it is too large for one of a machine");
        std::string all(static_cast<size_t>(size), '\0');
        size_t done = 0;
        while (done < all.size()) {
            const ssize_t n =
                library().archive_read_data(tar.get(), all.data() + done, all.size() - done);
            if (n <= 0)
                refuse(file, "it is damaged or cut");
            done += static_cast<size_t>(n);
        }
        return all;
    }

    const std::string &file;
    int descriptor;
    std::unique_ptr<::archive, int (*)(::archive *)> tar;
    archive_entry *entry = nullptr;
    int64_t size = 0;
    int64_t end = 0;   // of the last entry, as far as it has been read
    int64_t total = 0; // bytes of all files
    size_t entries = 0;
};

archived_machine::archived_machine(const std::string &file, archive_part part) : file_(file)
{
    reader from(file_);
    if (library().archive_read_open_fd(from.tar.get(), from.descriptor, 65536) != ARCHIVE_OK)
        refuse(file, "it is no tar archive");
    std::string manifest;
    while (from.next()) {
        const char *const name = library().archive_entry_pathname(from.entry);
        const fs::path path = name ? name : "";
        const std::string shown = printable(path);
        const auto kind = library().archive_entry_filetype(from.entry);
        const char *const link = library().archive_entry_symlink(from.entry);
        if (leads_astray(path))
            refuse(file, fmt::format("'{}' in it lies outside of a machine", shown));
        if (kind == AE_IFDIR)
            continue;
        if (library().archive_entry_hardlink(from.entry) || (kind != AE_IFREG && !link))
            refuse(file, fmt::format("'{}' in it is neither a file nor a symbolic link", shown));
        if (from.size > largest_file)
            refuse(file, fmt::format("'{}' in it has {} bytes", shown, from.size));
        const std::string place = "/" + path.lexically_normal().string();
        if (place == "/manifest.json")
            manifest = from.bytes();
        else if (part == archive_part::logs && !is_of_logs(place))
            continue;
        else if (link)
            links_[place] = link;
        else
            files_[place] = from.bytes();
    }
    if (manifest.empty())
        refuse(file, "it has no manifest.json: it is no archive of a machine");
    read_manifest(manifest);
}

void archived_machine::read_manifest(const std::string &text)
{
    using nlohmann::json;
    const auto is_shallow = [](int depth, json::parse_event_t, json &) {
        return depth <= deepest_manifest;
    };
    const json manifest = json::parse(text, is_shallow, false);
    if (!manifest.is_object() || manifest.value("format", json()) != json_format)
        refuse(file_, "its manifest.json is none that this program knows");
    const auto text_of = [](const json &object, const char *name) {
        const auto found = object.find(name);
        return found != object.end() && found->is_string()
                   ? found->get<std::string>().substr(0, longest_text)
                   : std::string();
    };
    const auto rows_of = [](const json &object, const char *name) {
        const auto found = object.find(name);
        return found != object.end() && found->is_array() ? *found : json::array();
    };
    facts_.host = printable(text_of(manifest, "host"));
    if (facts_.host.empty())
        facts_.host = printable(without_compression(file_));
    facts_.host.resize(std::min(facts_.host.size(), longest_host));
    if (const auto time = manifest.find("time_raw");
        time != manifest.end() && time->is_number_integer())
        facts_.time = time->get<time_t>();
    facts_.chassis = text_of(manifest, "chassis");
    facts_.is_rp2 = manifest.value("rp2", json()) == true;
    facts_.kernel = printable(text_of(manifest, "kernel"));
    for (const json &row : rows_of(manifest, "left_out"))
        if (row.is_object())
            left_out_[text_of(row, "path")] = text_of(row, "problem");
    const json known = manifest.value("settings", json());
    if (!known.is_object())
        return;
    facts_.lockdown = printable(text_of(known, "lockdown"));
    for (const json &word : rows_of(known, "parameters"))
        if (word.is_string())
            facts_.parameters.push_back(printable(word.get<std::string>()));
    for (const json &row : rows_of(known, "unusable_nodes"))
        if (row.is_object())
            facts_.nodes.push_back(
                {printable(text_of(row, "name")), printable(text_of(row, "problem"))});
}

//--- files ----------------------------------------------------------------------------------------

// The path without links; those that lead in a circle, or up too often, stay as they are and name
// nothing.
std::string archived_machine::resolved(const std::string &path) const
{
    std::string rest = path;
    std::string done;
    for (int links = 0; !rest.empty() && rest.size() <= longest_path;) {
        const size_t begin = rest.find_first_not_of('/');
        if (begin == rest.npos)
            break;
        const size_t end = std::min(rest.find('/', begin), rest.size());
        const std::string part = rest.substr(begin, end - begin);
        rest.erase(0, end);
        if (part == ".")
            continue;
        if (part == "..") {
            done.erase(std::min(done.rfind('/'), done.size()));
            continue;
        }
        const auto link = links_.find(done + "/" + part);
        if (link == links_.end()) {
            done += "/" + part;
            continue;
        }
        if (++links > most_links)
            return "";
        if (link->second.starts_with('/'))
            done.clear();
        rest = link->second + rest;
    }
    return rest.size() <= longest_path ? done : "";
}

bool archived_machine::is_directory(const std::string &path) const
{
    const std::string start = path + "/";
    const auto file = files_.lower_bound(start);
    const auto link = links_.lower_bound(start);
    return (file != files_.end() && file->first.starts_with(start)) ||
           (link != links_.end() && link->first.starts_with(start));
}

std::optional<std::string> archived_machine::read(const std::string &path) const
{
    const std::string place = resolved(path);
    if (const auto found = files_.find(place); found != files_.end())
        return found->second;
    auto missing = left_out_.find(path);
    if (missing == left_out_.end())
        missing = left_out_.find(place);
    if (missing == left_out_.end())
        return std::nullopt;
    const std::string &why = missing->second;
    const int error = missing_right(why, 0)                              ? EACCES
                      : why.find("another program") != std::string::npos ? EBUSY
                                                                         : EIO;
    failure failed("read " + path, printable(why), "it was so when the archive was made", error);
    failed.hint = "it was so when the archive was made";
    throw failed;
}

std::vector<std::string> archived_machine::names_in(const std::string &directory) const
{
    const std::string start = resolved(directory) + "/";
    std::vector<std::string> names;
    const auto add_from = [&](const auto &entries) {
        for (auto at = entries.lower_bound(start);
             at != entries.end() && at->first.starts_with(start);) {
            const size_t end = at->first.find('/', start.size());
            names.push_back(at->first.substr(start.size(), end - start.size()));
            at = end == at->first.npos ? std::next(at) // '0' follows '/'
                                       : entries.lower_bound(start + names.back() + "0");
        }
    };
    add_from(files_);
    add_from(links_);
    if (names.size() > most_names)
        refuse(file_, fmt::format("'{}' in it has {} entries", printable(directory), names.size()));
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
}

std::string archived_machine::target(const std::string &path) const
{
    const size_t slash = path.rfind('/');
    const auto found = links_.find(resolved(path.substr(0, slash)) + path.substr(slash));
    return found == links_.end() ? "" : found->second;
}

std::string archived_machine::real_path(const std::string &path) const
{
    const std::string place = resolved(path);
    return files_.contains(place) || is_directory(place) ? place : "";
}

} // namespace devaccess
