// What nearly every test includes and what takes longest to compile, compiled once for all of them.
// A test includes what it uses all the same: a build with CMAKE_DISABLE_PRECOMPILE_HEADERS shows
// what is missing.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <thread>
#include <vector>
