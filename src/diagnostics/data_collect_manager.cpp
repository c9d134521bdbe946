#include "diagnostics/data_collect_manager.hpp"

#include "diagnostics/logan_file_manager.hpp"
#include "diagnostics/logan_uploader.hpp"

#include <filesystem>

namespace qnbrl {

std::shared_ptr<QNDataCollectManager> QNDataCollectManager::create(const std::string& url,
                                                                   const std::string& dirPath, bool backup) {
  return create(QNLoganUploader::create(url), QNLoganFileManager::create(dirPath, backup), backup);
}

std::shared_ptr<QNDataCollectManager> QNDataCollectManager::create(
    std::shared_ptr<QNLoganUploadProtocol> uploader, std::shared_ptr<QNLoganFileProtocol> fileManager,
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

QNDataCollectManager::~QNDataCollectManager() {
  stopUploadTimer();
}

void QNDataCollectManager::setUrlString(std::string urlString) {
  loganUploader_->setUrlString(std::move(urlString));
}

void QNDataCollectManager::writeLog(std::string log) {
  loganFileManager_->writeLog(std::move(log));
}

void QNDataCollectManager::startUploadTimerWithInterval(double interval) {
  std::lock_guard lock(timerMutex_);
  if (timer_) timer_->stop();
  timer_.reset();
  if (!(interval > 0)) return;
  // Ticks run as tasks of the timer queue, so upload cycles never overlap.
  timer_ = QNBRLTimer::startTimer(
      interval, true,
      [weak = weak_from_this()] {
        if (auto self = weak.lock()) self->upload();
      },
      queue_);
}

void QNDataCollectManager::stopUploadTimer() {
  std::lock_guard lock(timerMutex_);
  if (timer_) timer_->stop();
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
