#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "support/log_capture.h"
#include "support/private_root.h"
#include "support/temp_folder.h"
#include "tirn/shm.h"

using namespace tirn::test;

namespace {

struct Name {
  std::string text = "/" + unique_name("tirn_shm");
  ~Name() { shm_unlink(text.c_str()); }
  const char* c_str() const { return text.c_str(); }
};

off_t size_of(const Name& name) {
  struct stat status {};
  return stat(("/dev/shm" + name.text).c_str(), &status) == 0 ? status.st_size : -1;
}

}  // namespace

TEST(SharedMemory, TwoMappingsShowOneObject) {
  const Name name;
  auto* const one = static_cast<std::atomic<int>*>(kesa_shm_create(name.c_str(), 4096));
  auto* const other = static_cast<std::atomic<int>*>(kesa_shm_create_ext(name.c_str(), O_RDWR, 0600, 4096));
  ASSERT_TRUE(one != nullptr && other != nullptr && one != other);
  struct stat status {};
  ASSERT_EQ(stat(("/dev/shm" + name.text).c_str(), &status), 0);
  EXPECT_TRUE(status.st_size == 4096 && (status.st_mode & 0777) == 0600);
  *one = 41;
  EXPECT_EQ(*other, 41);
}

TEST(SharedMemory, OpeningFlagsAndSizes) {
  LogCapture log;
  const Name name;
  ASSERT_NE(kesa_shm_create_ext(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, 4096), nullptr);
  errno = 0;
  EXPECT_EQ(kesa_shm_create_ext(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600, 4096), nullptr);
  EXPECT_EQ(errno, EEXIST);
  EXPECT_TRUE(log.texts().empty()) << log;
  // An object that is opened for reading is not resized, and is mapped without write access.
  void* const readable = kesa_shm_create_ext(name.c_str(), O_RDONLY, 0600, 64);
  EXPECT_NE(readable, nullptr);
  EXPECT_EQ(size_of(name), 4096);
  EXPECT_EQ(mprotect(readable, 64, PROT_READ | PROT_WRITE), -1);
  // Opening with another size resizes the object.
  EXPECT_NE(kesa_shm_create(name.c_str(), 8192), nullptr);
  EXPECT_EQ(size_of(name), 8192);
  // If the system accepts the fourth access mode, an error is logged, and the mapping allows no access.
  void* const nothing = kesa_shm_create_ext(name.c_str(), O_ACCMODE, 0600, 8192);
  EXPECT_TRUE(log.has(HURN_ERROR, "kesa_shm_create_ext", "Oflag open failed, oflag<3>.") || nothing == nullptr)
      << log;
  log.clear();
  EXPECT_EQ(kesa_shm_create(name.c_str(), 0), nullptr);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_shm_create_ext", "Mmap shm mem fail, errno<22>.")) << log;
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_shm_create", "Open shm fail, errno<22>.")) << log;
  EXPECT_EQ(kesa_shm_destroy(name.c_str()), 0);
  EXPECT_EQ(size_of(name), -1);
  EXPECT_EQ(kesa_shm_destroy(name.c_str()), -1);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_shm_destroy", "Destroy shm fail, ret<-1> errno<2>.")) << log;
}

TEST(SharedMemory, FullDeviceIsFoundAtCreation) {
  PrivateRoot root;
  TIRN_NEEDS_PRIVATE_ROOT(root);
  root.tmpfs("/dev/shm", "size=64k");
  LogCapture log;
  const Name name;
  EXPECT_EQ(kesa_shm_create(name.c_str(), 1 << 20), nullptr);
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_shm_create_ext", "Fallocate shm fail, ret<-1> errno<28>.")) << log;
  EXPECT_TRUE(log.has(HURN_INFO, "kesa_shm_create", "Open shm fail, errno<28>.")) << log;
}

TEST(SystemVSegments, TwoMappingsShowOne) {
  const auto key = static_cast<int32_t>(0x54000000 | (getpid() & 0xFFFFFF));
  const int id = kesa_shmget(key, 4096);
  ASSERT_GE(id, 0) << strerror(errno);
  shmid_ds segment{};
  EXPECT_EQ(shmctl(id, IPC_STAT, &segment), 0);
  EXPECT_EQ(segment.shm_perm.mode & 0777, 0600);
  auto* const one = static_cast<std::atomic<int>*>(kesa_shmat(id));
  auto* const other = static_cast<std::atomic<int>*>(kesa_shmat(kesa_shmget_ex(key, 4096, 0)));
  EXPECT_EQ(kesa_shmget_ex(key, 4096, IPC_CREAT | IPC_EXCL | 0600), -1);
  EXPECT_EQ(kesa_shmdel(id), 0);
  EXPECT_EQ(kesa_shmdel(-1), -1);
  EXPECT_EQ(kesa_shmat(-1), nullptr);
  ASSERT_TRUE(one != nullptr && other != nullptr && one != other);
  *one = 41;
  EXPECT_EQ(*other, 41);
}
