#include "tarnctl/check/places.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "support/temp_dir.h"
#include "tarnctl/check/finding_kinds.h"

namespace tarnctl {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uid_t kStranger = 65534;

class CheckPlacesTest : public testing::Test {
  protected:
    CheckPlacesTest() {
        for (const char* name : {"fifo", "tmp", "shm", "run", "log", "fs"}) {
            std::filesystem::create_directory(dir.File(name));
        }
        places.fifos = {dir.File("fifo/alerts")};
        places.sockets = {dir.File("run/socket")};
        places.ringBase = dir.File("tmp/EventQueueCRM2");
        places.semaphore = dir.File("shm/sem.EventQueueCRM.sem");
        places.logFile = dir.File("log/tarn.log");
        places.settingsFolder = dir.File("fs");
    }

    // The names and files of what is found.
    std::vector<std::string> Found() {
        Findings findings;
        CheckPlaces(places, findings);
        std::vector<std::string> found;
        for (const Finding& finding : findings) {
            found.push_back(finding.kind->name +
                            (" " + finding.place.file.substr(dir.Path().string().size() + 1)));
        }
        return found;
    }

    // A sticky folder that everybody may write to, which belongs to the superuser.
    void MakeShared(const char* folder) { ASSERT_EQ(0, chmod(dir.File(folder).c_str(), 01777)); }

    // What the checks find as another user; empty where there is none to be.
    std::vector<std::string> FoundAsStranger() {
        EXPECT_EQ(0, chmod(dir.Path().c_str(), 0755));
        if (geteuid() == 0 && seteuid(kStranger) == 0) {
            std::vector<std::string> found = Found();
            EXPECT_EQ(0, seteuid(0));
            return found;
        }
        return {};
    }

    static bool CanBeStranger() {
        if (geteuid() != 0 || seteuid(kStranger) != 0) {
            return false;
        }
        return seteuid(0) == 0;
    }

    TempDir dir;
    Places places;
};

TEST_F(CheckPlacesTest, FindNothingOnAFreshMachine) {
    EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(CheckPlacesTest, FindNothingWhereEverythingIsInItsPlace) {
    ASSERT_EQ(0, mkfifo(dir.File("fifo/alerts").c_str(), 0600));
    dir.Write("tmp/EventQueueCRM2-0", "");
    dir.Write("tmp/EventQueueCRM2-1", "");
    dir.Write("shm/sem.EventQueueCRM.sem", std::string(32, '\0'));
    EXPECT_THAT(Found(), IsEmpty());
}

TEST_F(CheckPlacesTest, NameFoldersThatAreMissing) {
    for (const char* name : {"fifo", "tmp", "shm", "log"}) {
        std::filesystem::remove(dir.File(name));
    }
    EXPECT_THAT(Found(), ElementsAre("folder-missing fifo", "folder-missing tmp",
                                     "folder-missing shm", "folder-missing log"));
}

TEST_F(CheckPlacesTest, NameWhatHasThePlaceOfSomethingElse) {
    dir.Write("fifo/alerts", "");
    std::filesystem::create_directory(dir.File("tmp/EventQueueCRM2-0"));
    dir.Write("shm/sem.EventQueueCRM.sem", "short");
    dir.Write("run/socket", "");
    EXPECT_THAT(
        Found(),
        ElementsAre("fifo-is-none fifo/alerts", "ring-is-none tmp/EventQueueCRM2-0",
                    "semaphore-is-none shm/sem.EventQueueCRM.sem", "socket-is-none run/socket"));
}

TEST_F(CheckPlacesTest, NameWhatAUserCannotOpen) {
    if (!CanBeStranger()) {
        GTEST_SKIP() << "needs the superuser and another user";
    }
    ASSERT_EQ(0, mkfifo(dir.File("fifo/alerts").c_str(), 0600));
    dir.Write("tmp/EventQueueCRM2-1", "");
    ASSERT_EQ(0, chmod(dir.File("tmp/EventQueueCRM2-1").c_str(), 0700));
    dir.Write("shm/sem.EventQueueCRM.sem", std::string(32, '\0'));
    ASSERT_EQ(0, chmod(dir.File("shm/sem.EventQueueCRM.sem").c_str(), 0600));
    const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    dir.File("run/socket").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, chmod(dir.File("run/socket").c_str(), 0600));
    close(listener);
    for (const char* shared : {"tmp", "shm"}) {
        MakeShared(shared);
    }
    EXPECT_THAT(FoundAsStranger(),
                ElementsAre("fifo-mode fifo/alerts", "ring-mode tmp/EventQueueCRM2-1",
                            "semaphore-mode shm/sem.EventQueueCRM.sem", "socket-mode run/socket",
                            "folder-not-writable log"));
}

TEST_F(CheckPlacesTest, NameWhatTheKernelProtectsFromTheSuperuserToo) {
    if (geteuid() != 0) {
        GTEST_SKIP() << "needs the superuser, who may give files away";
    }
    MakeShared("fifo");
    MakeShared("tmp");
    ASSERT_EQ(0, mkfifo(dir.File("fifo/alerts").c_str(), 0666));
    dir.Write("tmp/EventQueueCRM2-0", "");
    if (chown(dir.File("fifo/alerts").c_str(), kStranger, kStranger) != 0 ||
        chown(dir.File("tmp/EventQueueCRM2-0").c_str(), kStranger, kStranger) != 0) {
        GTEST_SKIP() << "runs in a namespace without other users";
    }
    EXPECT_THAT(Found(), IsEmpty()) << "the kernel does not show its settings";
    dir.Write("fs/protected_fifos", "1\n");
    dir.Write("fs/protected_regular", "1\n");
    EXPECT_THAT(Found(),
                ElementsAre("fifo-protected fifo/alerts", "ring-protected tmp/EventQueueCRM2-0"));
    ASSERT_EQ(0, chmod(dir.File("tmp").c_str(), 01775));
    ASSERT_EQ(0, chmod(dir.File("fifo").c_str(), 0777));
    EXPECT_THAT(Found(), IsEmpty()) << "not sticky, or not for everybody";
    dir.Write("fs/protected_regular", "2\n");
    EXPECT_THAT(Found(), ElementsAre("ring-protected tmp/EventQueueCRM2-0"));
}

TEST_F(CheckPlacesTest, NameAFileSystemWithoutRoomForTheRings) {
    places.ringBase = "/proc/EventQueueCRM2";  // a file system that has no room at all
    const std::vector<std::string> all = [this] {
        Findings findings;
        CheckPlaces(places, findings);
        std::vector<std::string> names;
        for (const Finding& finding : findings) {
            names.emplace_back(finding.kind->name);
        }
        return names;
    }();
    EXPECT_THAT(all, testing::Contains("ring-room").Times(geteuid() == 0 ? 1 : 0));
}

TEST(DaemonPlacesTest, AreTheDaemonsOwn) {
    const Places places = DaemonPlaces(3, "/cache/qor/tarn.log");
    EXPECT_THAT(places.fifos,
                ElementsAre("/var/cache/qor-tarn/alerts.fifo", "/var/cache/qor-tarn/errmsgs.fifo"));
    EXPECT_EQ("/var/tmp/EventQueueCRM3", places.ringBase);
    EXPECT_EQ("/dev/shm/sem.EventQueueCRM.sem", places.semaphore);
    EXPECT_THAT(places.sockets, ElementsAre("/etc/crm/AuxThread_crmMQ", "/var/tmp/.secmgrsock",
                                            "/var/run/packetLog"));
    EXPECT_EQ("/cache/qor/tarn.log", places.logFile);
}

class CheckFileTest : public testing::Test {
  protected:
    std::vector<std::string> Found(const std::string& path, bool isStateFile) {
        Findings findings;
        isRead = CheckFile(path, isStateFile, findings);
        std::vector<std::string> names;
        for (const Finding& finding : findings) {
            names.emplace_back(finding.kind->name);
        }
        return names;
    }

    TempDir dir;
    bool isRead = false;
};

TEST_F(CheckFileTest, NamesAFileThatIsMissingButForTheStateFile) {
    EXPECT_THAT(Found(dir.File("missing"), false), ElementsAre("file-missing"));
    EXPECT_FALSE(isRead);
    EXPECT_THAT(Found(dir.File("missing"), true), IsEmpty());
    EXPECT_FALSE(isRead);
}

TEST_F(CheckFileTest, NamesWhatIsNoRegularFile) {
    EXPECT_THAT(Found(dir.Path().string(), false), ElementsAre("file-not-regular"));
    EXPECT_FALSE(isRead);
    EXPECT_THAT(Found(dir.Path().string(), true), ElementsAre("file-not-regular"));
}

TEST_F(CheckFileTest, NamesAFileThatAUserCannotReadOrWrite) {
    const std::string path = dir.Write("tarn.conf", "");
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    if (geteuid() != 0 || seteuid(kStranger) != 0) {
        GTEST_SKIP() << "needs the superuser and another user";
    }
    const std::vector<std::string> readOnly = Found(path, false);
    const bool isReadOnlyRead = isRead;
    ASSERT_EQ(0, seteuid(0));
    ASSERT_EQ(0, chmod(path.c_str(), 0600));
    ASSERT_EQ(0, seteuid(kStranger));
    const std::vector<std::string> unreadable = Found(path, false);
    ASSERT_EQ(0, seteuid(0));
    EXPECT_THAT(readOnly, ElementsAre("file-not-writable"));
    EXPECT_TRUE(isReadOnlyRead) << "its lines are checked all the same";
    EXPECT_THAT(unreadable, ElementsAre("file-unreadable"));
    EXPECT_FALSE(isRead);
}

}  // namespace
}  // namespace tarnctl
