#pragma once
// Sends one telemetry file whole to the collection endpoint. Only a 204 answer counts as accepted;
// one upload is in flight at a time.
#include "diagnostics/logan_protocols.hpp"
#include "support/queues.hpp"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>

namespace qnbrl {

class QNLoganUploader : public QNLoganUploadProtocol, public std::enable_shared_from_this<QNLoganUploader> {
 public:
  static constexpr std::chrono::seconds uploadTimeout{30};

  static std::shared_ptr<QNLoganUploader> create(std::string uploadUrl);

  // `result` runs on the uploader's queue.
  void uploadFile(const std::string& filePath, std::function<void(bool)> result) override;
  bool isUploading() const override { return isUploading_; }
  std::string urlString() const override;
  void setUrlString(std::string urlString) override;
  const std::shared_ptr<SerialQueue>& queue() const { return queue_; }

 private:
  explicit QNLoganUploader(std::string uploadUrl);
  void send(const std::string& filePath, std::function<void(bool)> result);
  void finish(int status, const std::function<void(bool)>& result);

  std::shared_ptr<SerialQueue> queue_;
  // Written only on `queue_`; read from the collector's queue to skip a tick while busy.
  std::atomic<bool> isUploading_{false};
  mutable std::mutex urlMutex_;
  std::string urlString_;
};

}  // namespace qnbrl
