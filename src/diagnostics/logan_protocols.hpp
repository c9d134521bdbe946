#pragma once
// The seams between the telemetry collector, its file store and its uploader.
#include <functional>
#include <optional>
#include <string>

namespace qnbrl {

class QNLoganFileProtocol {
 public:
  virtual ~QNLoganFileProtocol() = default;
  // Appends one record line asynchronously.
  virtual void writeLog(std::string log) = 0;
  // The next file to upload (oldest first), or none.
  virtual std::optional<std::string> getWaitUploadFilePath() = 0;
  virtual void moveToBackupWithFilePath(const std::string& filePath) = 0;
};

class QNLoganUploadProtocol {
 public:
  virtual ~QNLoganUploadProtocol() = default;
  // Sends the file; `result` gets true only when the server accepted it. A call made while another
  // upload is in flight does nothing and never calls `result`.
  virtual void uploadFile(const std::string& filePath, std::function<void(bool)> result) = 0;
  virtual bool isUploading() const = 0;
  virtual std::string urlString() const = 0;
  virtual void setUrlString(std::string urlString) = 0;
};

}  // namespace qnbrl
