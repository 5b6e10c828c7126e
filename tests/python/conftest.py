"""Images that tests and examples speak of."""

import numpy as np
import pytest
from hypothesis import settings

import korimg

# The same cases each time, and nothing left in the tree.
settings.register_profile("korimg", database=None, derandomize=True, deadline=None)
settings.load_profile("korimg")


def make(shape=(3, 71, 97), low=100, high=1000, seed=0):
    return np.random.default_rng(seed).uniform(low, high, shape).astype(np.float32)


@pytest.fixture
def images():
    return {
        "korimg": korimg,
        "image": make(),
        "mosaic": make((71, 97)),
        "dark": make(low=50, high=90, seed=1),
        "flat": make(low=300, high=500, seed=2),
        "other": make(low=50, high=500, seed=3),
    }
