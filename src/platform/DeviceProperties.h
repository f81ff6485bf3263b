// DeviceProperties: the device-property service (product type, product name, build version), the main
// screen's scale and the keyboard input mode.
//
// LinuxDeviceProperties reads them as follows, once, at construction:
//   ProductType  DMI product name (/sys/class/dmi/id/product_name), else device-tree model, else the
//                machine architecture (uname -m);
//   ProductName  os-release NAME;
//   BuildVersion os-release BUILD_ID, else VERSION_ID.
// Screen scale: preference "VORScreenScale", else $GDK_SCALE, else 1.0 (read at each call).
// Keyboard input mode: preference "VORKeyboardInputMode", else the current locale's language.
//
// Threading: immutable after construction; safe from any thread.
#pragma once

#include <memory>
#include <string>

namespace vorlen {

class Preferences;

class DeviceProperties {
 public:
  virtual ~DeviceProperties() = default;
  virtual std::string productType() const = 0;
  virtual std::string productName() const = 0;
  virtual std::string buildVersion() const = 0;
  virtual double screenScale() const = 0;
  virtual std::string keyboardInputMode() const = 0;

  // "%@; %@ %@" of product type, product name and build version: the device part of user agents.
  std::string deviceText() const { return productType() + "; " + productName() + " " + buildVersion(); }
};

class LinuxDeviceProperties final : public DeviceProperties {
 public:
  // `defaults` may be null (then only the environment and the system files are read).
  explicit LinuxDeviceProperties(std::shared_ptr<const Preferences> defaults);
  std::string productType() const override { return productType_; }
  std::string productName() const override { return productName_; }
  std::string buildVersion() const override { return buildVersion_; }
  double screenScale() const override;
  std::string keyboardInputMode() const override;

 private:
  std::shared_ptr<const Preferences> defaults_;
  std::string productType_, productName_, buildVersion_;
};

}  // namespace vorlen
