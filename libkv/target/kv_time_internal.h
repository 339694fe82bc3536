#pragma once

#include <kv/target.h>

// Calendar text, as ctime() writes it, to day number. Day 1.0 is 1 January of year 0, which is a leap year.

/** Splits a calendar text, which is changed by that. Fields without a token stay zero. */
DateStr_T str2ds(char* text);

/** Reads the fields. Of a month that is none, which standard output is told, only the year is read. */
DateTime_T ds2dt(const DateStr_T& ds);

/** Days, with the time of day as fraction. A day of year that is 0 is computed from month and day. */
double dt2dn(const DateTime_T& dt);

/**
 * Days in all years before a year, and @p doy. No days come before year 0; a year above 3000, which standard
 * output is told, counts as having none either.
 */
int getDaysSinceYearZero(int year, int doy);

double str2dn(char* text);
