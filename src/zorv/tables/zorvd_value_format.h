// Record values as the texts of a notification. Callable from any thread.
#pragma once

#include <string>

// Date and time of a Unix time in the NAS's configured formats, a blank between them; "" for 0.
std::string timestamp(long long t);

// A byte count with two decimals and a binary unit, "KB" the smallest; " " for 0.
void bytesToStr(long long bytes, std::string& out);

// A duration as "H:MM:SS", or "MM:SS" below an hour.
void secondsToStr(long long seconds, std::string& out);
