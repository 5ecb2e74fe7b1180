// A minimal controller behind the fake extension unit: byte memories of the
// I2C devices (per descriptor, so two cameras stay apart), a status command,
// and the faults the control-layer tests need.
#ifndef KS_TEST_FAKE_FIRMWARE_H
#define KS_TEST_FAKE_FIRMWARE_H

#include <map>
#include <set>
#include <tuple>
#include <vector>

#include "fake_xu_device.h"

namespace fakexu {

class Firmware {
  public:
    explicit Firmware(Device& device) : device_(device) {
        device_.respond([this](const Request& r) { return handle(r); });
    }
    ~Firmware() { device_.respond(nullptr); }
    Firmware(const Firmware&) = delete;
    Firmware& operator=(const Firmware&) = delete;

    // Only touch these while no exchange runs.
    std::map<std::tuple<int, int, int>, uint8_t> memory;  // (fd, write address, register)
    std::map<uint32_t, uint8_t> flash;                    // erased bytes are absent (0xFF)
    std::set<int> refused;                                // write addresses that do not acknowledge
    int eeprom_writes_dropped = 0;                        // next EEPROM writes that do not stick
    int eeprom_write_nak_once = 0;  // next EEPROM writes acknowledged with an error
    int status_failures = 0;        // next status requests that stall the pipe
    bool update_fails = false;      // EEPROM update answered with another command
    uint8_t version[32] = {'2', '.', '4', '.', '1'};

    uint8_t at(int fd, int dev, int reg) {
        auto it = memory.find({fd, dev & 0xFE, reg});
        return it == memory.end() ? 0xFF : it->second;
    }

  private:
    std::vector<Block> stall() {
        device_.fail_receives(1);
        return {};
    }

    std::vector<Block> handle(const Request& r) {
        const int dev = static_cast<int>(r.parameter >> 16) & 0xFF;
        const int reg = static_cast<int>(r.parameter & 0xFFFF);
        switch (r.command) {
            case 1:
                return {answer(r, std::vector<uint8_t>(version, version + 32)).encode()};
            case 2: {
                std::vector<uint8_t> page(256);
                for (uint32_t i = 0; i < 256; ++i) {
                    auto it = flash.find(r.parameter + i);
                    page[i] = it == flash.end() ? 0xFF : it->second;
                }
                return {answer(r, page).encode()};
            }
            case 3:
                for (size_t i = 0; i < r.data.size(); ++i)
                    flash[r.parameter + static_cast<uint32_t>(i)] = r.data[i];
                return {answer(r).encode()};
            case 4:
                flash.erase(flash.lower_bound(r.parameter), flash.lower_bound(r.parameter + 4096));
                return {answer(r).encode()};
            case 5: {
                Reply a = answer(r);
                if (update_fails) a.command = 0x7F;
                return {a.encode()};
            }
            case 6: {
                if (refused.count(dev & 0xFE)) return stall();
                const uint32_t len = r.data.size() >= 4 ? (r.data[0] | r.data[1] << 8) : 0;
                std::vector<uint8_t> out;
                for (uint32_t i = 0; i < len && i < 256; ++i) out.push_back(at(r.fd, dev, reg + i));
                return {answer(r, out).encode()};
            }
            case 7: {
                if (refused.count(dev & 0xFE)) return stall();
                const bool eeprom = (dev & 0xFE) == 0xA0;
                const bool dropped = eeprom && eeprom_writes_dropped > 0;
                if (dropped) --eeprom_writes_dropped;
                for (size_t i = 0; i < r.data.size() && !dropped; ++i)
                    memory[{r.fd, dev & 0xFE, reg + static_cast<int>(i)}] = r.data[i];
                Reply a = answer(r);
                if (eeprom && eeprom_write_nak_once > 0) {
                    --eeprom_write_nak_once;
                    a.command = 0x7F;
                }
                return {a.encode()};
            }
            case 11:
                if (status_failures > 0) {
                    --status_failures;
                    return stall();
                }
                return {answer(r, {0x01}).encode()};
            case 15:
                return {answer(r, {0x00, 0x00, 0x01, 0x2C}).encode()};
            default:
                return {answer(r).encode()};
        }
    }

    Device& device_;
};

}  // namespace fakexu

#endif
