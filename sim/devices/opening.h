// What one of a client's descriptors stands for, and which of its calls are answered how.
#pragma once

#include "sim/devices/asking_process.h"

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace chassis_sim
{

class opening
{
public:
    opening() = default;
    opening(const opening &) = delete;
    opening &operator=(const opening &) = delete;
    virtual ~opening() = default;

    // Whether a descriptor of the client, which is a link to that in /proc, stands for it.
    virtual bool is_behind(const std::string &link, const asking_process &client, int fd) const = 0;

    // Whether any client has it open, as far as is known.
    virtual bool is_open() const { return true; }

    // Answers to the calls on a descriptor. Unless a kind of opening says otherwise, the kernel
    // does what is asked.
    // at: where in the file, of pread and pwrite.
    using position = std::optional<uint64_t>;
    virtual void read(const asked_call &call, int, position /* at */) { call.pass(); }
    virtual void write(const asked_call &call, int, position /* at */) { call.pass(); }
    virtual void seek(const asked_call &call, int) { call.pass(); }
    virtual void map(const asked_call &call, int) { call.pass(); }
    virtual void duplicate(const asked_call &call, int, bool /* close_on_exec */) { call.pass(); }
    virtual void close(const asked_call &call, int) { call.pass(); }
    virtual void use(const asked_call &call, int) { call.pass(); } // in another way

    // The character device that it is an opening of; empty: it is none.
    virtual std::string node_path() const { return ""; }

    // The client is about to wait for some of its descriptors.
    virtual void before_wait(const asked_call &) {}
};

// All openings, and the numbers of their descriptors: reads, writes and the like are asked about
// from the first of these on.
class opening_table
{
public:
    explicit opening_table(unsigned int first_number) : first_number_(first_number) {}

    void add(std::shared_ptr<opening> made) { openings_.push_back(std::move(made)); }
    void forget(const opening *gone);
    void forget_closed();
    opening *find(const asking_process &client, int fd) const;
    opening *find(const std::string &link) const;
    void before_wait(const asked_call &call) const;

    // A number that the client has not given to a descriptor; none: it has no more.
    std::optional<unsigned int> free_number(const asking_process &client);
    // The client gives one back.
    void freed(const asking_process &client, int fd);

private:
    unsigned int first_number_;
    std::map<pid_t, unsigned int> next_numbers_; // to look at, by process: those before are taken
    std::vector<std::shared_ptr<opening>> openings_;
};

} // namespace chassis_sim
