// Every error text of the gateway with a call that ends in it, for the hosts of the tests.
#pragma once

#include <string>

/// The name of the operation and a letter for each further input: single d(ata), e(mpty), v(olume);
/// double r(ange) of 1 x 2, D of 2 x 3, t(all) of 1 x 2 x 2, s(quare) of 2 x 2, l(ong) of 1 x 3,
/// c(omplex) range. Without a name the first letter is the first input.
struct ErrorCase {
  std::string operation, inputs, text;
};

inline const ErrorCase kErrorCases[] = {
    {"", "d", "The first input must be a string describing the functionality."},
    {"", "", "The first input must be a string describing the functionality."},
    {"filter", "drr", "There must be at least 5 inputs."},
    {"filter", "drrrr", "Too many input arguments."},
    {"filter", "Drrr", "Data must be of type single."},
    {"filter", "errr", "Data cannot be empty."},
    {"filter", "ddrr", "kx-range must be of type double."},
    {"filter", "drdr", "ky-range must be of type double."},
    {"filter", "drrd", "kz-range must be of type double."},
    {"filter", "dcrr", "kx-range must be real valued."},
    {"filter", "drcr", "ky-range must be real valued."},
    {"filter", "drrc", "kz-range must be real valued."},
    {"filter", "dtrr", "The kx-range must be 1 dimensional vector."},
    {"filter", "dsrr", "The kx-range coordinates must be 1 dimensional vector."},
    {"filter", "dlrr", "The kx-range must be of length 2."},
    {"filter", "drtr", "The ky-range must be 1 dimensional vector."},
    {"filter", "drsr", "The ky-range coordinates must be 1 dimensional vector."},
    {"filter", "drlr", "The ky-range must be of length 2."},
    {"filter", "drrt", "The kz-range must be 1 dimensional vector."},
    {"filter", "drrs", "The kz-range coordinates must be 1 dimensional vector."},
    {"filter", "drrl", "The kz-range must be of length 2."},
    {"multiply", "d", "There must be at least 3 inputs."},
    {"multiply", "ddd", "Too many input arguments."},
    {"multiply", "de", "The low resolution data cannot be empty."},
    {"multiply", "Dd", "Data must be of type single."},
    {"multiply", "ed", "Data cannot be empty."},
    {"multiply", "dD", "LowRes must be of type single."},
    {"multiply", "dv",
     "The data must have the same number of dimensions than the low resolution data"},
};
