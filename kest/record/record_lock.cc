#include <kest/record/proto_simulator/file_io.h>
#include <kest/record/record_lock.h>
#include <kest/record/record_update.h>

#include <cerrno>

namespace KestTfOp {

namespace {

class SemaphoreHold {
public:
    SemaphoreHold() : semaphore_(Initializer::GetInstance().semaphore) {
        while (sem_wait(&semaphore_) != 0 && errno == EINTR) {
        }
    }
    SemaphoreHold(const SemaphoreHold&) = delete;
    SemaphoreHold& operator=(const SemaphoreHold&) = delete;
    ~SemaphoreHold() { sem_post(&semaphore_); }

private:
    sem_t& semaphore_;
};

}  // namespace

struct RecordLock::Held {
    explicit Held(const std::string& recordFile) : directory(recordFile.c_str()) {}

    SemaphoreHold semaphore;  // first, so that nobody waits for it who holds the other
    kest_tf::DirectoryLock directory;
};

RecordLock::RecordLock(const std::string& recordFile) : held_(new Held(recordFile)) {}
RecordLock::~RecordLock() = default;

int RecordLock::Status() const {
    return held_->directory.Status();
}

}  // namespace KestTfOp
