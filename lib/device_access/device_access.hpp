/// @file
/// The C++ wrapper of the library: owners, register windows, ranges and results over the C calls,
/// which their own headers describe. Header only, for C++20 and newer, with exceptions or without.
///
/// A call that can fail returns a result: the value, or the call's name and errno. A list or a
/// range that has ended early says so: failed(). What the library prints it prints here, too.
///
/// This header is all of it; each of those below can be included alone.
#ifndef DEVICE_ACCESS_DEVICE_ACCESS_HPP
#define DEVICE_ACCESS_DEVICE_ACCESS_HPP

#include <device_access/result.hpp>

#include <device_access/chassis.hpp>
#include <device_access/pci.hpp>
#include <device_access/pci_config.hpp>
#include <device_access/pod_log.hpp>
#include <device_access/post_log.hpp>
#include <device_access/registers.hpp>
#include <device_access/uio.hpp>

#endif
