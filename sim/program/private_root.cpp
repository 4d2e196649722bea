// Builds the root that a chassis shows, and moves into it.
#include "sim/program/private_root.h"

#include "sim/base/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include <fcntl.h>
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

// Where the tree that this process sees lies in its mount namespace: "", but for one in a changed
// root.
std::string outside;

// The new root is built on top of /sys: a directory every machine has, and one whose real contents
// the chassis never shows.
std::string new_root()
{
    return outside + "/sys";
}

void write_id_map(const char *file, const std::string &text)
{
    const owned_fd map(::open(file, O_WRONLY | O_CLOEXEC));
    if (!map || ::write(map.get(), text.data(), text.size()) < 0)
        fail(std::string("may make no user namespace of its own (cannot write ") + file +
             "): run it as root, or where kernel.apparmor_restrict_unprivileged_userns is 0 and no "
             "container forbids it");
}

void enter_namespaces()
{
    if (::unshare(CLONE_NEWNS) == 0)
        return;
    const uid_t uid = ::getuid();
    const gid_t gid = ::getgid();
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        if (errno == ENOSPC || errno == EUSERS)
            fail("the kernel gives no more namespaces: raise user.max_user_namespaces and "
                 "user.max_mnt_namespaces");
        fail("needs a private mount namespace: run it as root, or where user namespaces are "
             "allowed");
    }
    write_id_map("/proc/self/setgroups", "deny");
    write_id_map("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_id_map("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

// What is mounted here is seen nowhere else. In a changed root, "/" is no mount, and the
// namespace's own root has to be made private.
void make_mounts_private()
{
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0)
        return;
    const owned_fd changed_root(must(::open("/", O_PATH | O_CLOEXEC), "open /"));
    const owned_fd self(must(::open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC),
                             "in a changed root, needs its /proc: open /proc/self/ns/mnt"));
    must(::setns(self.get(), CLONE_NEWNS), "go to the root of the mount namespace");
    outside = fs::read_symlink("/proc/self/fd/" + std::to_string(changed_root.get())).string();
    must(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
}

void show_host_entry(const fs::directory_entry &entry)
{
    const std::string to = new_root() + "/" + entry.path().filename().string();
    if (entry.is_symlink()) {
        make_symlink(to, fs::read_symlink(entry.path()).string());
    } else if (entry.is_directory()) {
        make_directory(to);
        bind_mount(entry.path().string(), to);
    }
}

void build_dev()
{
    const std::string dev = new_root() + "/dev";
    for (const char *node : {"null", "zero", "full", "random", "urandom", "tty"}) {
        const std::string host = outside + "/dev/" + node;
        if (fs::exists(host)) {
            write_file(dev + "/" + node, "");
            bind_mount(host, dev + "/" + node);
        }
    }
    for (const char *directory : {"/pts", "/shm"}) {
        make_directory(dev + directory);
        if (fs::exists(outside + "/dev" + directory))
            bind_mount(outside + "/dev" + directory, dev + directory);
        else
            must(::chmod((dev + directory).c_str(), 01777), "chmod " + dev + directory);
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
    const std::string host = new_root() + "/.host-sbin";
    make_directory(host);
    make_directory(new_root() + "/sbin");
    if (!fs::exists(outside + "/sbin"))
        return;
    // In a changed root, a link there is followed there.
    const std::string programs =
        outside.empty() || !fs::is_symlink(outside + "/sbin")
            ? outside + "/sbin"
            : outside + "/" + fs::read_symlink(outside + "/sbin").relative_path().string();
    bind_mount(programs, host);
    for (const auto &program : fs::directory_iterator(programs)) {
        const std::string name = program.path().filename().string();
        make_symlink(new_root() + "/sbin/" + name, "/.host-sbin/" + name);
    }
}

void build_root()
{
    static const std::set<std::string> own = {"sys", "dev", "var", "flash", "sbin"};
    must(::mount("chassis", new_root().c_str(), "tmpfs", 0, "mode=755"), "mount tmpfs");
    for (const auto &entry : fs::directory_iterator(outside + "/"))
        if (!own.contains(entry.path().filename().string()))
            show_host_entry(entry);
    build_dev();
    build_sbin();
    for (const char *directory : {"/sys", "/var/log", "/var/tmp", "/flash/diags"})
        make_directory(new_root() + directory);
    make_symlink(new_root() + "/var/run", "/run");
}

void change_root(const std::string &working_directory)
{
    must(::chdir(new_root().c_str()), "chdir");
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
    std::error_code gone; // a directory that was removed has no path
    const std::string working_directory = fs::current_path(gone).string();
    enter_namespaces();
    make_mounts_private();
    build_root();
    change_root(working_directory);
    ::umask(mask);
}

} // namespace chassis_sim
