// The fake VM for unit tests; virtualMachine.h tells how it is used.
#pragma once

#include "frames.h"
#include "objectModel.h"
#include "virtualMachine.h"
#include "vmTest.h"
