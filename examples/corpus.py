"""A small English-like corpus, generated from a seeded grammar.

Two kinds of text alternate: short stories, in which a hero, a friend and a thing keep their names
from the first sentence to the last, and almanac entries, in which the numbers add up. The same seed
gives the same bytes on every machine: only `random.Random`'s `random()` is used, whose sequence
Python guarantees.
"""

from __future__ import annotations

import random
from dataclasses import dataclass
from typing import Callable, Sequence, TypeVar

TRAIN_SEED = 1
HELD_OUT_SEED = 1_000_003
SEPARATOR = "\n\n"

Item = TypeVar("Item")


@dataclass(frozen=True)
class Person:
    """A character, with the pronouns that a story uses for it."""

    name: str
    subject: str
    possessive: str


@dataclass(frozen=True)
class Thing:
    """Something that can be carried, with its plural and where it is likely to be lost and found."""

    one: str
    many: str
    hidden: str


PEOPLE = [
    *(Person(name, "she", "her") for name in ("Anna", "Clara", "Edith", "Greta", "Ida", "Maren")),
    *(Person(name, "he", "his") for name in ("Bruno", "David", "Felix", "Hugo", "Jonas", "Oskar")),
]
TRADES = ["baker", "carpenter", "fisher", "gardener", "miller", "potter", "shepherd", "weaver"]
PLACES = ["Alder Bridge", "Cold Harbour", "Green Hollow", "Long Meadow", "Stone Ferry", "Westwick"]
THINGS = [
    Thing("brass key", "brass keys", "under the stairs"),
    Thing("blue lantern", "blue lanterns", "behind the old mill"),
    Thing("wooden flute", "wooden flutes", "in the apple cellar"),
    Thing("silver bell", "silver bells", "at the bottom of the well"),
    Thing("copper kettle", "copper kettles", "beside the kitchen stove"),
    Thing("woollen coat", "woollen coats", "on a nail in the barn"),
]
GOODS = ["apples", "candles", "eggs", "fish", "jars of honey", "loaves of bread"]
WEATHER = {
    "rain": "The rain fell all day, and the river rose to the second step.",
    "snow": "The snow lay deep on the road, and nobody came from the hills.",
    "sun": "The sun was warm, and the doors of the houses stood open.",
    "wind": "The wind blew from the sea, and the boats stayed in the harbour.",
}
MONTHS = {
    "January": "snow",
    "March": "wind",
    "April": "rain",
    "June": "sun",
    "August": "sun",
    "October": "wind",
    "November": "rain",
    "December": "snow",
}
NUMBERS = (
    "zero one two three four five six seven eight nine ten eleven twelve thirteen fourteen fifteen "
    "sixteen seventeen eighteen nineteen twenty"
).split()


class Chooser:
    """Random choices that depend on nothing but the seed."""

    def __init__(self, seed: int) -> None:
        self._random = random.Random(seed)

    def number(self, low: int, high: int) -> int:
        """A whole number from `low` to `high`, both included."""
        return low + int(self._random.random() * (high - low + 1))

    def one(self, items: Sequence[Item]) -> Item:
        """One of `items`."""
        return items[self.number(0, len(items) - 1)]

    def two(self, items: Sequence[Item]) -> tuple[Item, Item]:
        """Two different ones of `items`."""
        first = self.number(0, len(items) - 1)
        second = (first + self.number(1, len(items) - 1)) % len(items)
        return items[first], items[second]


def story(choose: Chooser) -> str:
    """A story of a thing that is lost, looked for and found."""
    hero, friend = choose.two(PEOPLE)
    trade, place, thing = choose.one(TRADES), choose.one(PLACES), choose.one(THINGS)
    openings = [
        f"{hero.name} was a {trade} who lived in {place}.",
        f"In {place} there lived a {trade} whose name was {hero.name}.",
        f"Long ago, {hero.name} came to {place} to work as a {trade}.",
    ]
    losses = [
        f"Of all that {hero.subject} owned, {hero.name} loved {hero.possessive} {thing.one} best, "
        f"but one morning the {thing.one} was gone.",
        f"Every evening {hero.name} took out {hero.possessive} {thing.one} and looked at it. "
        f"Then one evening the {thing.one} was not there.",
        f"One day {hero.name} lost {hero.possessive} {thing.one} and could not sleep that night.",
    ]
    questions = [
        f'"Have you seen my {thing.one}?" {hero.name} asked {friend.name}.',
        f'{hero.name} went to {friend.name} and said, "My {thing.one} is lost. Will you help me?"',
    ]
    answers = [
        f'"No," said {friend.name}, "but two pairs of eyes are better than one."',
        f'"I have not seen it," said {friend.name}, "but I will look for it with you."',
        f'{friend.name} put down {friend.possessive} work at once. "Let us look together," {friend.subject} said.',
    ]
    searches = [
        f"{hero.name} and {friend.name} looked in every house in {place}.",
        f"They asked the {choose.one(TRADES)} and the {choose.one(TRADES)}, but nobody knew.",
        "They looked until the lamps were lit, and found nothing.",
    ]
    findings = [
        f"At last {friend.name} found the {thing.one} {thing.hidden}.",
        f"On the third day {hero.name} saw something {thing.hidden}. It was the {thing.one}.",
    ]
    endings = [
        f'"Thank you, {friend.name}," said {hero.name}, and they were friends from that day on.',
        f"{hero.name} gave {friend.name} a supper of bread and soup, and they laughed until late.",
        f"From that day on, {hero.name} the {trade} never let the {thing.one} out of {hero.possessive} sight.",
    ]
    middle = [WEATHER[choose.one(sorted(WEATHER))]] if choose.number(0, 1) else []
    parts = [choose.one(openings), choose.one(losses), *middle, choose.one(questions)]
    parts += [choose.one(answers), choose.one(searches), choose.one(findings), choose.one(endings)]
    return " ".join(parts)


def almanac(choose: Chooser) -> str:
    """An almanac entry: the weather suits the month, and what is sold and what is left add up."""
    month, place, goods = choose.one(sorted(MONTHS)), choose.one(PLACES), choose.one(GOODS)
    seller, buyer = choose.two(PEOPLE)
    thing = choose.one(THINGS)
    total = choose.number(3, 20)
    sold = choose.number(1, total - 1)
    count = choose.number(2, 9)
    trades = [
        f"{seller.name} brought {NUMBERS[total]} {goods} to the market. {buyer.name} bought "
        f"{NUMBERS[sold]} of them, and so {seller.name} carried {NUMBERS[total - sold]} home.",
        f"Of the {NUMBERS[total]} {goods} that {seller.name} had, {buyer.name} took "
        f"{NUMBERS[sold]}, and {NUMBERS[total - sold]} were left for {seller.name}.",
    ]
    notes = [
        f"There were {NUMBERS[count]} {thing.many} for sale, and {buyer.name} looked at all {NUMBERS[count]} of them.",
        f"{buyer.name} paid {NUMBERS[count]} coins, and {seller.name} counted all {NUMBERS[count]} of them twice.",
    ]
    heading = f"{month} {choose.number(1, 28)}, {place}."
    return " ".join([heading, WEATHER[MONTHS[month]], choose.one(trades), choose.one(notes)])


KINDS: list[Callable[[Chooser], str]] = [story, story, almanac]


def generate(seed: int, size: int) -> bytes:
    """Exactly `size` bytes of text. A different `seed` gives different texts of the same kinds."""
    if size < 0:
        raise ValueError(f"size must not be negative, but is {size}")
    choose = Chooser(seed)
    texts: list[bytes] = []
    length = 0
    while length < size:
        texts.append((choose.one(KINDS)(choose) + SEPARATOR).encode("ascii"))
        length += len(texts[-1])
    return b"".join(texts)[:size]


def train_text(size: int = 2_000_000) -> bytes:
    """The text to learn from."""
    return generate(TRAIN_SEED, size)


def held_out_text(size: int = 100_000) -> bytes:
    """Text that no training step sees."""
    return generate(HELD_OUT_SEED, size)
