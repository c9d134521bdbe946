#pragma once
// Keeps telemetry records on disk until they are uploaded: lines go to the working file "logan",
// which is closed off every 100 records under a local-time name "yyyy_MM_dd_HH_mm_ss"; closed-off
// files are handed out oldest first and, once accepted, moved to the "_bak" sibling directory.
#include "diagnostics/logan_protocols.hpp"
#include "support/queues.hpp"

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qnbrl {

class QNLoganFileManager : public QNLoganFileProtocol,
                           public std::enable_shared_from_this<QNLoganFileManager> {
 public:
  // Creates the directories, removes empty leftovers and opens (or reopens) the working file. A
  // directory that cannot be made leaves the store without a handle: records are then dropped.
  static std::shared_ptr<QNLoganFileManager> create(const std::string& loganDirPath, bool backup);
  ~QNLoganFileManager() override;

  void writeLog(std::string log) override;
  std::optional<std::string> getWaitUploadFilePath() override;
  void moveToBackupWithFilePath(const std::string& filePath) override;

  // Closes off the working file and returns the name it was given (the rename may have failed).
  std::string saveCurrentWritingLoganFileToWaitUpload();
  std::string nextLogPath() const;
  // Entry names of the telemetry directory, oldest creation date first; none when unreadable.
  std::optional<std::vector<std::string>> allLogPaths() const;
  void removeEmptyFile() const;
  void resetFileHandle();

  static void createDir(const std::string& path);
  static bool qn_createFile(const std::string& path);
  // Seconds since the epoch: birth time where the file system keeps one, else modification time.
  static std::optional<double> fileCreationDate(const std::string& path);

  bool backup() const { return backup_; }
  const std::string& loganDirPath() const { return loganDirPath_; }
  const std::string& loganBackupDirPath() const { return loganBackupDirPath_; }
  const std::string& loganFileToWrite() const { return loganFileToWrite_; }
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }
  std::int64_t writeCount() const;

 private:
  QNLoganFileManager(const std::string& loganDirPath, bool backup);
  void append(const std::string& log);
  std::string saveLocked();
  void resetLocked();
  void closeHandleLocked();

  std::shared_ptr<SerialQueue> queue_;
  // Guards the handle and the counter: the working file is renamed from the upload timer's queue
  // while appends run on `queue_`.
  mutable std::mutex filelock_;
  bool backup_;
  std::string loganDirPath_;
  std::string loganBackupDirPath_;
  std::string loganFileToWrite_;
  int handle_ = -1;
  std::int64_t writeCount_ = 0;
};

}  // namespace qnbrl
