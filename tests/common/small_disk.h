// A tmpfs of a given size for the life of the object: a disk that fills up.
// Mounting needs root, as every test here runs.
#ifndef VESTA_TESTS_COMMON_SMALL_DISK_H_
#define VESTA_TESTS_COMMON_SMALL_DISK_H_

#include <sys/mount.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "gtest/gtest.h"

class SmallDisk {
 public:
  SmallDisk(const std::string& path, size_t bytes) : path_(path) {
    mkdir(path.c_str(), 0755);
    const std::string size = "size=" + std::to_string(bytes);
    mounted_ = mount("tmpfs", path.c_str(), "tmpfs", 0, size.c_str()) == 0;
    EXPECT_TRUE(mounted_) << strerror(errno);
  }
  ~SmallDisk() {
    if (mounted_) umount2(path_.c_str(), MNT_DETACH);
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

 private:
  std::string path_;
  bool mounted_;
};

#endif  // VESTA_TESTS_COMMON_SMALL_DISK_H_
