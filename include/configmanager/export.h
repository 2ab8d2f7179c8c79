// Symbol export for libconfigmanager.so: everything is hidden unless marked.
#pragma once

#define QCM_EXPORT __attribute__((visibility("default")))
