/**
 * @file
 * Visibility of what libkvsim.so exports.
 */
#pragma once

/** Marks a class or function that libkvsim.so exports. */
#define KVSIM_EXPORT __attribute__((visibility("default")))
