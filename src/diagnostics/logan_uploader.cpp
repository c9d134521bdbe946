#include "diagnostics/logan_uploader.hpp"

#include "diagnostics/console.hpp"
#include "support/http_request.hpp"

#include <fstream>
#include <iterator>
#include <optional>

namespace qnbrl {
namespace {

std::optional<std::string> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return std::nullopt;
  return bytes;
}

}  // namespace

std::shared_ptr<QNLoganUploader> QNLoganUploader::create(std::string uploadUrl) {
  return std::shared_ptr<QNLoganUploader>(new QNLoganUploader(std::move(uploadUrl)));
}

QNLoganUploader::QNLoganUploader(std::string uploadUrl)
    : queue_(SerialQueue::create("com.qn.logan.uploader")), urlString_(std::move(uploadUrl)) {}

std::string QNLoganUploader::urlString() const {
  std::lock_guard lock(urlMutex_);
  return urlString_;
}

void QNLoganUploader::setUrlString(std::string urlString) {
  std::lock_guard lock(urlMutex_);
  urlString_ = std::move(urlString);
}

void QNLoganUploader::uploadFile(const std::string& filePath, std::function<void(bool)> result) {
  if (isUploading_) return;
  queue_->async([weak = weak_from_this(), filePath, result = std::move(result)]() mutable {
    auto self = weak.lock();
    if (!self || self->isUploading_) return;
    self->send(filePath, std::move(result));
  });
}

void QNLoganUploader::send(const std::string& filePath, std::function<void(bool)> result) {
  isUploading_ = true;
  auto body = readFile(filePath);
  if (!body) {
    // A file that cannot be read fails like a request that got no answer.
    finish(0, result);
    return;
  }
  HttpRequest request;
  request.method = "POST";
  request.url = urlString();
  request.headers.emplace_back("Content-type", "application/octet-stream");
  request.body = std::move(*body);
  request.timeout = uploadTimeout;
  QNHttpRequest::sharedSession().send(
      std::move(request),
      [weak = weak_from_this(), result = std::move(result)](HttpResponse response) mutable {
        auto self = weak.lock();
        if (!self) return;
        self->queue_->async([weak, status = response.status, result = std::move(result)] {
          if (auto me = weak.lock()) me->finish(status, result);
        });
      });
}

void QNLoganUploader::finish(int status, const std::function<void(bool)>& result) {
  isUploading_ = false;
  bool accepted = status == 204;
  if (!accepted) consoleEcho("上传失败" + std::to_string(status));
  if (result) result(accepted);
}

}  // namespace qnbrl
