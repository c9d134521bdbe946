#pragma once
// Joins the telemetry file store to the uploader: record lines go to the store, and on a repeating
// timer the oldest waiting file is sent. A file leaves the store only after the server accepted it.
#include "diagnostics/logan_protocols.hpp"
#include "support/queues.hpp"
#include "support/timer.hpp"

#include <memory>
#include <mutex>
#include <string>

namespace qnbrl {

class QNDataCollectManager : public std::enable_shared_from_this<QNDataCollectManager> {
 public:
  static std::shared_ptr<QNDataCollectManager> create(const std::string& url, const std::string& dirPath,
                                                      bool backup = false);
  // The same over pieces supplied by the caller.
  static std::shared_ptr<QNDataCollectManager> create(std::shared_ptr<QNLoganUploadProtocol> uploader,
                                                      std::shared_ptr<QNLoganFileProtocol> fileManager,
                                                      bool backup);
  ~QNDataCollectManager();

  void setUrlString(std::string urlString);
  void writeLog(std::string log);
  // First tick one interval from now, then every interval, on `queue`; replaces a running timer.
  // An interval that is not positive only stops the timer.
  void startUploadTimerWithInterval(double interval);
  void stopUploadTimer();
  // One cycle: at most one file is handed to the uploader.
  void upload();

  bool isBackup() const { return isBackup_; }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
  const std::shared_ptr<QNLoganUploadProtocol>& loganUploader() const { return loganUploader_; }
  const std::shared_ptr<QNLoganFileProtocol>& loganFileManager() const { return loganFileManager_; }

 private:
  QNDataCollectManager(std::shared_ptr<QNLoganUploadProtocol> uploader,
                       std::shared_ptr<QNLoganFileProtocol> fileManager, bool backup);

  bool isBackup_;
  std::shared_ptr<SerialQueue> queue_;
  std::shared_ptr<QNLoganUploadProtocol> loganUploader_;
  std::shared_ptr<QNLoganFileProtocol> loganFileManager_;

  std::mutex timerMutex_;
  std::shared_ptr<QNBRLTimer> timer_;
};

}  // namespace qnbrl
