// How reports call classes.
#include "allocations/allocationNames.h"
#include "support/text.h"

#include <gtest/gtest.h>

namespace {

using agent::sourceNameOf;
using support::withoutAddress;

TEST(allocationNames, addressesOfHiddenClassesAreCut) {
  EXPECT_EQ(withoutAddress("La/Shop$$Lambda.0x00007f0001234;"), "La/Shop$$Lambda");
  EXPECT_EQ(withoutAddress("La/Shop$$Lambda$14/0x0000000800c03000;"), "La/Shop$$Lambda$14");
  EXPECT_EQ(withoutAddress("La/Hidden+0x00007f;"), "La/Hidden");
  EXPECT_EQ(withoutAddress("[[La/Shop$$Lambda.0x1;"), "[[La/Shop$$Lambda");
}

TEST(allocationNames, numbersOfLambdasOfOldVmsAreCut) {
  EXPECT_EQ(withoutAddress("La/Shop$$Lambda$14/863831416;"), "La/Shop$$Lambda$14");
  EXPECT_EQ(withoutAddress("[La/Shop$$Lambda$14/863831416;"), "[La/Shop$$Lambda$14");
  EXPECT_EQ(withoutAddress("a.Shop$$Lambda$14.863831416"), "a.Shop$$Lambda$14");
  EXPECT_EQ(withoutAddress("Shop$$Lambda$14/1"), "Shop$$Lambda$14") << "without a package";
  EXPECT_EQ(withoutAddress("Ljava/lang/invoke/LambdaForm$MH/1586270964;"),
            "Ljava/lang/invoke/LambdaForm$MH");
}

TEST(allocationNames, othersStayWhole) {
  for (const char* const each :
       {"La/Shop;", "[B", "LShop;", "La/x0/Shop;", "La/0y;", "", "[", "La/Shop/158;", "L158;",
        "La/Lambda/Shop/158;", "La/Shop$$Lambda$14;", "La/Shop$$Lambda$14/15x;",
        "La/Shop$$Lambda$14/;"}) {
    EXPECT_EQ(withoutAddress(each), each);
  }
}

TEST(allocationNames, areThoseOfTheSource) {
  EXPECT_EQ(sourceNameOf("La/Shop;"), "a.Shop");
  EXPECT_EQ(sourceNameOf("La/Shop$Stock;"), "a.Shop$Stock");
  EXPECT_EQ(sourceNameOf("LShop;"), "Shop") << "without a package";
  EXPECT_EQ(sourceNameOf("La/Shop$$Lambda"), "a.Shop$$Lambda") << "without its address";
  EXPECT_EQ(sourceNameOf("[[Ljava/lang/String;"), "java.lang.String[][]");
  EXPECT_EQ(sourceNameOf("[La/Shop$$Lambda"), "a.Shop$$Lambda[]");
  EXPECT_EQ(sourceNameOf("[Z"), "boolean[]");
  EXPECT_EQ(sourceNameOf("[B"), "byte[]");
  EXPECT_EQ(sourceNameOf("[C"), "char[]");
  EXPECT_EQ(sourceNameOf("[S"), "short[]");
  EXPECT_EQ(sourceNameOf("[I"), "int[]");
  EXPECT_EQ(sourceNameOf("[J"), "long[]");
  EXPECT_EQ(sourceNameOf("[F"), "float[]");
  EXPECT_EQ(sourceNameOf("[[[D"), "double[][][]");
}

TEST(allocationNames, whatIsNoSignatureStaysReadable) {
  EXPECT_EQ(sourceNameOf(""), "");
  EXPECT_EQ(sourceNameOf("["), "[]");
  EXPECT_EQ(sourceNameOf("[Q"), "Q[]");
  EXPECT_EQ(sourceNameOf("L"), "");
  EXPECT_EQ(sourceNameOf("LL"), "L");
}

}  // namespace
