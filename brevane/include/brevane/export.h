/**
 * @file
 * Visibility of what the embedded kernel exports.
 */
#pragma once

/** Marks a class or function that the embedded kernel exports. */
#define BREVANE_EXPORT __attribute__((visibility("default")))
