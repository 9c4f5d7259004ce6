// The one header an application includes: accounts, the storage manager and
// its tasks, progress, notifications, errors and the log channel.
//
// Link with the CMake target ZNVStorage::znvstorage (find_package(ZNVStorage))
// or `pkg-config --cflags --libs znvstorage`. Everything else under znv/ is the
// library's own and is not installed.
#pragma once

#include "znv/account/account.h"
#include "znv/account/account_configuration.h"
#include "znv/account/authentication.h"
#include "znv/account/reachability_manager.h"
#include "znv/foundation/error_handler.h"
#include "znv/foundation/log.h"
#include "znv/managers/network.h"
#include "znv/managers/storage.h"
#include "znv/platform/error.h"
#include "znv/platform/main_queue.h"
#include "znv/platform/notification_center.h"
#include "znv/platform/observable.h"
#include "znv/platform/progress.h"
#include "znv/platform/url.h"
#include "znv/tasks/network_download.h"
#include "znv/tasks/network_task.h"
#include "znv/upload/storage_upload.h"
