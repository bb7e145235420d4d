#include <fcntl.h>
#include <grp.h>
#include <tests/record/record_test_util.h>

namespace {

const std::string kOld = Record("conv1", "    offset_d: 1\n") + std::string(1 << 20, ' ');  // longer than a device's
const std::string kNew = Record("conv1", "    scale_d: 0.5\n    offset_d: -1\n");

int Update(const std::string& file) {
    return kUpdates[1]("conv1", file);
}

TEST(RecordFile, Permissions) {
    const struct {
        const char* why;
        mode_t file, directory;
        int status;
    } rows[] = {{"unreadable file", 0222, 0777, RECORD_OPEN_ERROR},
                {"read-only file in a writable directory", 0444, 0777, RECORD_OPEN_ERROR},
                {"directory takes no new file: in place", 0666, 0555, STATUS_OK},
                {"directory that cannot be listed", 0666, 0333, STATUS_OK},
                {"directory that cannot be searched", 0666, 0666, RECORD_PATH_ERROR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        TempDir directory;
        const std::string file = directory / "record.txt";
        WriteText(file, kOld);
        chmod(file.c_str(), row.file);
        chmod(directory.Path().c_str(), row.directory);
        const pid_t child = Start([&] {  // without root's rights
            const bool isRoot = geteuid() == 0;
            ASSERT_TRUE(!isRoot || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0));
            EXPECT_EQ(row.status, Update(file));
        });
        EXPECT_EQ(0, End(child));
        chmod(directory.Path().c_str(), 0777);
        chmod(file.c_str(), 0666);
        EXPECT_EQ(row.status == STATUS_OK ? kNew : kOld, ReadText(file));
        EXPECT_EQ(1, directory.NumFiles());
    }
}

TEST(RecordFile, NewFileBehindLinks) {
    TempDir directory;
    Root root;
    const std::string relative = directory / "relative", absolute = directory / "absolute", loop = directory / "loop";
    std::filesystem::create_symlink("new.txt", relative);
    std::filesystem::create_symlink(relative, absolute);
    std::filesystem::create_symlink("loop", loop);
    const mode_t mask = umask(027);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, absolute));
    umask(mask);
    EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, loop));
    struct stat status = {};
    ASSERT_EQ(0, stat((directory / "new.txt").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777) << "0666 but the mask";
    EXPECT_EQ(0, status.st_size) << "a root without entries is an empty file";
    EXPECT_TRUE(std::filesystem::is_symlink(relative) && std::filesystem::is_symlink(absolute));
}

TEST(RecordFile, OddPaths) {
    TempDir directory;
    Root root, parsed;
    root.AddRecord()->SetKey("a");
    const std::string longName = directory / std::string(255, 'n');
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, longName));
    EXPECT_EQ(root.Dump(), ReadText(longName));
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(directory.Path());
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, std::string(255, 'n'))) << "no slash in it";
    std::filesystem::current_path(before);
    const std::pair<std::string, int> rows[] = {// and what reading gives
                                                {"", RECORD_PATH_ERROR},
                                                {directory / "", RECORD_OPEN_ERROR},
                                                {directory / "none/x", RECORD_PATH_ERROR},
                                                {longName + "n", RECORD_PATH_ERROR},
                                                {longName + "/x", RECORD_PATH_ERROR},
                                                {std::string(5000, 'x'), RECORD_PATH_ERROR},
                                                {"/dev/full", RECORD_OPEN_ERROR}};
    for (const auto& [path, status] : rows) {
        EXPECT_EQ(RECORD_OPEN_ERROR, WriteToRecordFile(root, path)) << path;
        EXPECT_EQ(status, kest_tf::ParseRecordFile(path, parsed)) << path;
    }
    EXPECT_EQ(1, directory.NumFiles());
    const std::string sparse = "/dev/shm/kest-sparse-" + std::to_string(getpid());  // larger than disks allow
    WriteText(sparse, "");
    if (truncate(sparse.c_str(), std::int64_t{5} << 60) == 0) {
        EXPECT_EQ(RECORD_OPEN_ERROR, kest_tf::ParseRecordFile(sparse, parsed));
    }
    unlink(sparse.c_str());
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600));
    const int reader = open(pipe.c_str(), O_RDWR);
    EXPECT_EQ(STATUS_OK, WriteToRecordFile(root, pipe));
    std::string text(1000, ' ');
    text.resize(static_cast<std::size_t>(read(reader, text.data(), text.size())));
    EXPECT_EQ(root.Dump(), text);
    close(reader);
}

}  // namespace
