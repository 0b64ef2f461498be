// SPDX-License-Identifier: Apache-2.0
#pragma once

/** Marks what the shared library offers to other programs; everything else stays hidden in it. */
#define VNLOG_API __attribute__((visibility("default")))
