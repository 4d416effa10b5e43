import board
import pytest


@pytest.fixture(autouse=True)
def fresh_board():
    board.clear()
    yield
    board.clear()
