#pragma once

#include <hidl/Status.h>

#include <cstddef>
#include <string>

/**
 * Switches over the services that are registered in this process, for tests and fault injection. All
 * thread-safe.
 */
namespace vel::host {

/**
 * Ends the service as if its process had died: the name is free, the registry drops the object, every call on
 * its proxies fails with DEAD_OBJECT (one that is running finishes first, and its reply is not delivered),
 * and a thread of its own tells the death recipients, once per registration. False when nothing has that
 * name.
 */
bool killLocalService(const std::string& name);

/**
 * Blocks until every recipient that was linked until now to a killed service has been told. Not to be called
 * from a recipient.
 */
void awaitDeathNotices();

/**
 * Unregisters everything without a notice of death, and clears every count and fault. Proxies handed out keep
 * working.
 */
void clearLocalServices();

/** How often tryGetService() has asked for `name`, in vain or not. */
size_t localLookUpCount(const std::string& name);

/**
 * The next `count` calls on proxies of `name` are not carried out and end with `status`, which must not be
 * OK: those about death too, which never fail in this way on a device, but whose result must be looked at all
 * the same. The setting stays with the name when the service is registered again.
 */
void failNextLocalCalls(const std::string& name, size_t count, const ::android::hardware::Status& status);

}  // namespace vel::host
