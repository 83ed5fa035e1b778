#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "host/mirl/mirl.h"

namespace {

std::string Text(const MIRLValue* value) {
  const char* data = aval_value_data(value);
  return data != nullptr ? data : "<none>";
}

// Converts and releases the copy; "<null>" when it could not be converted.
std::string AsText(const MIRLValue* value) {
  MIRLValue* copy = aval_copy_value(value, AvalString);
  std::string text = copy != nullptr ? Text(copy) : "<null>";
  aval_free_value(copy);
  return text;
}

int AsInteger(const MIRLValue* value, int missing = -12345) {
  MIRLValue* copy = aval_copy_value(value, AvalInteger);
  int number = missing;
  if (copy != nullptr) aval_integer_value(copy, &number);
  aval_free_value(copy);
  return number;
}

TEST(MirlValues, ListsOwnTheirItemsAndReleaseThemAll) {
  long before = mirl_live_values();
  MIRLValue* list = aval_create_list(2);
  EXPECT_EQ(aval_type(aval_nth_list(list, 0)), AvalNil);
  EXPECT_EQ(aval_put_list_item(list, 1, aval_create_string("b")), 1);
  EXPECT_EQ(aval_insert_list_item(list, aval_create_raw_integer(7)), list);
  EXPECT_EQ(aval_append_list_item(list, aval_create_real(2.5)), 1);
  EXPECT_EQ(aval_list_length(list), 4);
  EXPECT_EQ(Text(aval_nth_list(list, 2)), "b");
  EXPECT_EQ(aval_nth_list(list, 4), nullptr);
  EXPECT_EQ(aval_nth_list(list, -1), nullptr);

  // Items refused are released all the same.
  EXPECT_EQ(aval_put_list_item(list, 4, aval_create_string("lost")), 0);
  MIRLValue* text = aval_create_string("x");
  EXPECT_EQ(aval_append_list_item(text, aval_create_raw_integer(1)), 0);
  EXPECT_EQ(aval_list_length(text), -1);

  MIRLValue* tail = aval_tail_list(list, 2);
  EXPECT_EQ(aval_list_length(tail), 2);
  EXPECT_EQ(Text(aval_nth_list(tail, 0)), "b");
  MIRLValue* past = aval_tail_list(list, 10);
  EXPECT_EQ(aval_list_length(past), 0);
  EXPECT_EQ(aval_tail_list(text, 0), nullptr);
  // The tail shares items with the list: each outlives the other's release.
  aval_free_value(list);
  EXPECT_EQ(Text(aval_nth_list(tail, 0)), "b");
  MIRLValue* fresh = aval_insert_list_item(nullptr, AvalTrue);
  EXPECT_EQ(aval_list_length(fresh), 1);
  MIRLValue* values[] = {tail, past, text, fresh};
  aval_free_values(values, 4);
  EXPECT_EQ(mirl_live_values(), before);
}

TEST(MirlValues, SharedBooleansAreNotCounted) {
  long before = mirl_live_values();
  aval_free_value(AvalTrue);
  aval_free_value(nullptr);
  int flag = -1;
  EXPECT_EQ(aval_boolean_value(AvalTrue, &flag), 1);
  EXPECT_EQ(flag, 1);
  EXPECT_EQ(aval_boolean_value(AvalFalse, &flag), 1);
  EXPECT_EQ(flag, 0);
  EXPECT_EQ(aval_type(nullptr), AvalNone);
  EXPECT_EQ(mirl_live_values(), before);
}

TEST(MirlValues, ConversionsToTextAndInteger) {
  long before = mirl_live_values();
  MIRLValue* integer = aval_create_raw_integer(-12);
  MIRLValue* real = aval_create_real(3.97);
  MIRLValue* big = aval_create_real(1e12);
  MIRLValue* whole = aval_create_string("42");
  MIRLValue* signed_text = aval_create_string("-7");
  MIRLValue* words = aval_create_string("4 apples");
  MIRLValue* empty = aval_create_string(nullptr);
  MIRLValue* list = aval_create_list(1);

  EXPECT_EQ(AsText(integer), "-12");
  EXPECT_EQ(AsText(real), "3.97");
  EXPECT_EQ(AsText(big), "1e+12");
  EXPECT_EQ(AsText(AvalFalse), "false");
  EXPECT_EQ(AsText(whole), "42");
  EXPECT_EQ(AsText(list), "<null>");

  EXPECT_EQ(AsInteger(integer), -12);
  EXPECT_EQ(AsInteger(real), 3);
  EXPECT_EQ(AsInteger(big), -12345);  // outside int: not converted
  EXPECT_EQ(AsInteger(AvalTrue), 1);
  EXPECT_EQ(AsInteger(whole), 42);
  EXPECT_EQ(AsInteger(signed_text), -7);
  EXPECT_EQ(AsInteger(words), -12345);
  EXPECT_EQ(AsInteger(empty), -12345);

  EXPECT_EQ(convertToInt(real), 3);
  EXPECT_EQ(convertToInt(whole), 42);
  EXPECT_EQ(convertToInt(words), 0);
  EXPECT_EQ(convertToInt(nullptr), 0);

  int number = 0;
  EXPECT_EQ(aval_integer_value(real, &number), 0);
  EXPECT_EQ(aval_string_length(whole), 2);
  EXPECT_EQ(aval_string_length(integer), -1);
  EXPECT_EQ(aval_value_data(integer), nullptr);
  char buffer[3];
  EXPECT_EQ(aval_string_value(words, sizeof buffer, buffer), 1);
  EXPECT_STREQ(buffer, "4 ");
  EXPECT_EQ(aval_string_value(words, 0, buffer), 0);
  EXPECT_EQ(aval_string_value(integer, sizeof buffer, buffer), 0);

  // A copied list is a list of its own: changing it leaves the original.
  MIRLValue* copy = aval_copy_value(list, AvalList);
  EXPECT_EQ(aval_put_list_item(copy, 0, aval_create_raw_integer(1)), 1);
  EXPECT_EQ(aval_type(aval_nth_list(list, 0)), AvalNil);

  MIRLValue* values[] = {integer, real, big, whole, signed_text, words, empty, list, copy};
  aval_free_values(values, 9);
  EXPECT_EQ(mirl_live_values(), before);
}

}  // namespace
