// Builds the root that a chassis shows, and moves into it.
#include "sim/program/private_root.h"

#include "sim/base/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

// The new root is built on top of /sys: a directory every machine has, and one whose real contents
// the chassis never shows.
const std::string new_root = "/sys";

void enter_namespaces()
{
    if (::unshare(CLONE_NEWNS) == 0)
        return;
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        fail("needs a private mount namespace: run it as root, or where user namespaces are "
             "allowed");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

void show_host_entry(const fs::directory_entry &entry)
{
    const std::string to = new_root + entry.path().string();
    if (entry.is_symlink()) {
        make_symlink(to, fs::read_symlink(entry.path()).string());
    } else if (entry.is_directory()) {
        make_directory(to);
        bind_mount(entry.path().string(), to);
    }
}

void build_dev()
{
    const std::string dev = new_root + "/dev";
    for (const char *node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string host = std::string("/dev/") + node;
        if (fs::exists(host)) {
            write_file(dev + "/" + node, "");
            bind_mount(host, dev + "/" + node);
        }
    }
    for (const char *directory : {"pts", "shm"}) {
        make_directory(dev + "/" + directory);
        bind_mount(std::string("/dev/") + directory, dev + "/" + directory);
    }
    make_symlink(dev + "/ptmx", "pts/ptmx");
    make_symlink(dev + "/fd", "/proc/self/fd");
    make_symlink(dev + "/stdin", "/proc/self/fd/0");
    make_symlink(dev + "/stdout", "/proc/self/fd/1");
    make_symlink(dev + "/stderr", "/proc/self/fd/2");
}

// A directory of links, so that single programs can be replaced.
void build_sbin()
{
    const std::string host = new_root + "/.host-sbin";
    make_directory(host);
    bind_mount("/sbin", host);
    make_directory(new_root + "/sbin");
    for (const auto &program : fs::directory_iterator("/sbin")) {
        const std::string name = program.path().filename().string();
        make_symlink(new_root + "/sbin/" + name, "/.host-sbin/" + name);
    }
}

void build_root()
{
    static const std::set<std::string> own = {"/sys", "/dev", "/var", "/flash", "/sbin"};
    must(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
    must(::mount("chassis", new_root.c_str(), "tmpfs", 0, "mode=755"), "mount tmpfs");
    for (const auto &entry : fs::directory_iterator("/"))
        if (!own.contains(entry.path().string()))
            show_host_entry(entry);
    build_dev();
    build_sbin();
    for (const char *directory : {"/sys", "/var/log", "/var/tmp", "/flash"})
        make_directory(new_root + directory);
    make_symlink(new_root + "/var/run", "/run");
}

void change_root()
{
    const std::string working_directory = fs::current_path().string();
    must(::chdir(new_root.c_str()), "chdir");
    // With both arguments the same, the old root ends up mounted on top of the new one.
    must(static_cast<int>(::syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    must(::umount2(".", MNT_DETACH), "detach the old root");
    if (::chdir(working_directory.c_str()) != 0)
        must(::chdir("/"), "chdir /");
}

} // namespace

void enter_private_root()
{
    const mode_t mask = ::umask(022);
    enter_namespaces();
    build_root();
    change_root();
    ::umask(mask);
}

} // namespace chassis_sim
