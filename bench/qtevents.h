// LEDs, machines, pins and watchers as Qt objects with queued connections.
#pragma once

#include <QObject>
#include <cstdint>
#include <memory>
#include <vector>

#include "bench/events.h"

namespace Bench {

class QtPin : public QObject {
  Q_OBJECT
 public:
  void write(unsigned value) {
    if (value_ == value) return;
    value_ = value;
    emit changed(value);
  }
 signals:
  void changed(unsigned value);

 private:
  std::uint32_t value_ = 0;
};

class QtLed : public QObject {
  Q_OBJECT
 public:
  const Led::LightSetting& setting() const { return setting_; }
  void settingIs(const Led::LightSetting& setting) {
    if (setting_ == setting) return;
    setting_ = setting;
    emit changed();
  }
 signals:
  void changed();

 private:
  Led::LightSetting setting_;
};

class QtWatcher : public QObject {
  Q_OBJECT
 public:
  QtWatcher(QtPin& pin, std::uint64_t& notified);
 public slots:
  void onValue(unsigned value);

 private:
  std::uint64_t& notified_;
};

class QtMachine : public QObject {
  Q_OBJECT
 public:
  QtMachine(QtLed& led, std::size_t pins, PinPool<QtPin>& pool, std::uint64_t& notified);
 public slots:
  void onSetting();

 private:
  QtLed& led_;
  std::uint64_t& notified_;
  std::vector<std::unique_ptr<QtPin>> pins_;
  std::vector<std::unique_ptr<QtWatcher>> watchers_;
};

}  // namespace Bench
