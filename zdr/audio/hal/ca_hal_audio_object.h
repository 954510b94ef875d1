// CAHALAudioObject: a handle on one HAL object (by AudioObjectID) with typed
// property access. Every failing status is thrown as CAException.
//
// The object ID can be rewritten in place (SetObjectID) while other threads read
// it: a device that comes back under a new ID keeps its wrapper.
//
// Thread safety: every member may be called from any thread. Listener blocks
// run on the queue given when they were added.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "zdr/audio/hal/audio_hardware.h"
#include "zdr/audio/hal/ca_exception.h"

namespace zdr::hal {

class CAHALAudioObject {
 public:
    /// Uses AudioHardware::current() when no hardware is given.
    explicit CAHALAudioObject(AudioObjectID objectID,
                              std::shared_ptr<AudioHardware> hardware = nullptr);
    virtual ~CAHALAudioObject() = default;
    CAHALAudioObject(const CAHALAudioObject&) = delete;
    CAHALAudioObject& operator=(const CAHALAudioObject&) = delete;

    AudioObjectID GetObjectID() const { return objectID_.load(std::memory_order_acquire); }
    void SetObjectID(AudioObjectID objectID) {
        objectID_.store(objectID, std::memory_order_release);
    }
    const std::shared_ptr<AudioHardware>& hardware() const { return hardware_; }

    bool HasProperty(const AudioObjectPropertyAddress& address) const;
    bool IsPropertySettable(const AudioObjectPropertyAddress& address) const;
    UInt32 GetPropertyDataSize(const AudioObjectPropertyAddress& address,
                               const PropertyValue* qualifier = nullptr) const;
    PropertyValue GetPropertyData(const AudioObjectPropertyAddress& address,
                                  const PropertyValue* qualifier = nullptr) const;
    void SetPropertyData(const AudioObjectPropertyAddress& address, const PropertyValue& value);

    /// Typed reads: throw kAudioHardwareBadPropertySizeError when the backend
    /// answers a value of another kind.
    UInt32 GetPropertyData_UInt32(const AudioObjectPropertyAddress& address,
                                  const PropertyValue* qualifier = nullptr) const;
    Float32 GetPropertyData_Float32(const AudioObjectPropertyAddress& address) const;
    Float64 GetPropertyData_Float64(const AudioObjectPropertyAddress& address) const;
    std::string GetPropertyData_String(const AudioObjectPropertyAddress& address,
                                       const PropertyValue* qualifier = nullptr) const;
    std::vector<UInt32> GetPropertyData_ArrayOfUInt32(
        const AudioObjectPropertyAddress& address) const;

    void AddPropertyListenerBlock(const AudioObjectPropertyAddress& address,
                                  const DispatchQueue& queue, const ListenerBlockRef& block);
    void RemovePropertyListenerBlock(const AudioObjectPropertyAddress& address,
                                     const DispatchQueue& queue, const ListenerBlockRef& block);

    std::string CopyName() const;
    std::string CopyManufacturer() const;

 protected:
    template <class T>
    T typed(const PropertyValue& value) const {
        if (const T* v = value.getIf<T>()) return *v;
        throw CAException(kAudioHardwareBadPropertySizeError);
    }

    std::atomic<AudioObjectID> objectID_;
    std::shared_ptr<AudioHardware> hardware_;
};

}  // namespace zdr::hal
