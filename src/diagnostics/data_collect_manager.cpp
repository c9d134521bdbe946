#include "diagnostics/data_collect_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_uploader.hpp"

#include <chrono>
#include <filesystem>

namespace qnbrl {

std::shared_ptr<QNDataCollectManager> QNDataCollectManager::create(const std::string& url, const std::string& dirPath,
                                                                   bool backup) {
  return create(QNLoganUploader::create(url), QNLoganFileManager::create(dirPath, backup), backup);
}

std::shared_ptr<QNDataCollectManager> QNDataCollectManager::create(std::shared_ptr<QNLoganUploadProtocol> uploader,
                                                                   std::shared_ptr<QNLoganFileProtocol> fileManager,
                                                                   bool backup) {
  return std::shared_ptr<QNDataCollectManager>(
      new QNDataCollectManager(std::move(uploader), std::move(fileManager), backup));
}

QNDataCollectManager::QNDataCollectManager(std::shared_ptr<QNLoganUploadProtocol> uploader,
                                           std::shared_ptr<QNLoganFileProtocol> fileManager, bool backup)
    : isBackup_(backup),
      queue_(SerialQueue::create("com.qn.logan.timer.queue")),
      loganUploader_(std::move(uploader)),
      loganFileManager_(std::move(fileManager)) {}

QNDataCollectManager::~QNDataCollectManager() { stopUploadTimer(); }

void QNDataCollectManager::setUrlString(std::string urlString) { loganUploader_->setUrlString(std::move(urlString)); }

void QNDataCollectManager::writeLog(std::string log) { loganFileManager_->writeLog(std::move(log)); }

void QNDataCollectManager::startUploadTimerWithInterval(double interval) {
  stopUploadTimer();
  if (!(interval > 0)) return;
  std::lock_guard lock(timerMutex_);
  period_ = std::chrono::duration_cast<sio::Clock::duration>(std::chrono::duration<double>(interval));
  nextTick_ = sio::Clock::current().now() + period_;
  armLocked();
}

void QNDataCollectManager::armLocked() {
  auto& clock = sio::Clock::current();
  timer_ = clock.schedule(backgroundExecutor(), nextTick_ - clock.now(),
                          [weak = weak_from_this(), generation = generation_] {
                            auto self = weak.lock();
                            if (!self) return;
                            std::lock_guard lock(self->timerMutex_);
                            if (generation != self->generation_) return;
                            // Queued before the next tick is armed, so ticks stay in order.
                            self->queue_->async([weak] {
                              if (auto me = weak.lock()) me->upload();
                            });
                            // Counted from the previous deadline, so ticks do not drift.
                            self->nextTick_ += self->period_;
                            self->armLocked();
                          });
}

void QNDataCollectManager::stopUploadTimer() {
  std::lock_guard lock(timerMutex_);
  ++generation_;
  if (timer_) timer_->cancel();
  timer_.reset();
}

void QNDataCollectManager::upload() {
  auto path = loganFileManager_->getWaitUploadFilePath();
  if (!path) return;
  loganUploader_->uploadFile(*path, [weak = weak_from_this(), path = *path](bool accepted) {
    auto self = weak.lock();
    if (!accepted || !self) return;
    if (self->isBackup_) {
      self->loganFileManager_->moveToBackupWithFilePath(path);
    } else {
      std::error_code ignored;
      std::filesystem::remove(path, ignored);
    }
  });
}

}  // namespace qnbrl
