#pragma once
// A general-purpose telemetry logger interface that the SDK declares but does not use: QNLogan is
// an inert implementation that nothing creates. Only its configuration is kept.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace qnbrl {

class LoganConfigProtocol {
 public:
  virtual ~LoganConfigProtocol() = default;
};

class QNLoganProtocol {
 public:
  virtual ~QNLoganProtocol() = default;
  virtual void writeLog(const std::string& log) = 0;
  virtual void flush() = 0;
  virtual void uploadAll() = 0;
  virtual void uploadAllAsyn(std::function<void()> completion) = 0;
  virtual void uploadNext() = 0;
  virtual void uploadNextAsyn(std::function<void()> completion) = 0;
  virtual void clearFileDir() = 0;
  virtual std::int64_t getFileCount() = 0;
  virtual std::shared_ptr<LoganConfigProtocol> getConfig() = 0;
  virtual std::string getFileDir() = 0;
  virtual std::int64_t getFileMaxSize() = 0;
  virtual std::string getUploadAddress() = 0;
  virtual std::int64_t getUploadInternal() = 0;
  virtual std::string getEncryptCode() = 0;
};

class QNLogan : public QNLoganProtocol {
 public:
  explicit QNLogan(std::shared_ptr<LoganConfigProtocol> config) : config_(std::move(config)) {}

  void writeLog(const std::string&) override {}
  void flush() override {}
  void uploadAll() override {}
  void uploadAllAsyn(std::function<void()>) override {}
  void uploadNext() override {}
  void uploadNextAsyn(std::function<void()>) override {}
  void clearFileDir() override {}
  std::int64_t getFileCount() override { return 0; }
  std::shared_ptr<LoganConfigProtocol> getConfig() override { return config_; }
  std::string getFileDir() override { return {}; }
  std::int64_t getFileMaxSize() override { return 0; }
  std::string getUploadAddress() override { return {}; }
  std::int64_t getUploadInternal() override { return 0; }
  std::string getEncryptCode() override { return {}; }

 private:
  std::shared_ptr<LoganConfigProtocol> config_;
};

}  // namespace qnbrl
