"""From a photograph to the pictures of faces that the networks take.

Everything here is measured in pixels of the photograph, from its upper left corner: x to the right, y down.
The pixel in row r and column c covers x from c to c + 1 and y from r to r + 1; its centre is (c + 0.5, r + 0.5).
"Left" and "right" are those of the photograph.

Resampling and detection are OpenCV's: `pip install "facezoo[faces]"`.
"""
from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from types import ModuleType
from typing import NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

# Where the five points of `five_points` go, as parts of the aligned picture's width and height. They have the
# proportions of an adult's face, in round numbers. Networks that were trained on other places need these.
TEMPLATE = ((0.35, 0.40), (0.65, 0.40), (0.50, 0.60), (0.38, 0.73), (0.62, 0.73))
_LARGEST_SIDE = 32766  # OpenCV's warp counts pixels in 16 bits


class Box(NamedTuple):
    """A rectangle of a photograph, in pixels. It may reach outside, and may begin and end within a pixel."""

    left: float
    top: float
    width: float
    height: float


def _opencv() -> ModuleType:
    try:
        import cv2
    except ImportError as error:
        raise ImportError('facezoo.faces needs OpenCV, found none: pip install "facezoo[faces]"') from error
    return cv2


def _shape(value: object) -> str:
    return f"{value.dtype} {value.shape}" if isinstance(value, np.ndarray) else type(value).__name__


def _picture(image: ArrayLike) -> NDArray[np.uint8]:
    array = np.asarray(image)
    if (array.dtype != np.uint8 or array.ndim not in (2, 3) or array.ndim == 3 and array.shape[2] not in (1, 3)
            or not 0 < min(array.shape[:2]) <= max(array.shape[:2]) <= _LARGEST_SIDE):
        raise ValueError("image: expected uint8 (height, width), (height, width, 1) or (height, width, 3), sides "
                         f"from 1 to {_LARGEST_SIDE}, found {_shape(array)}")
    return np.ascontiguousarray(array.reshape(*array.shape[:2], -1))


def _box(box: Sequence[float]) -> Box:
    numbers = _numbers("box", box)
    if numbers.shape != (4,) or numbers[2:].min() <= 0:
        raise ValueError("box: expected left, top, width and height, of which the last two are above 0, "
                         f"found {box}")
    return Box(*numbers.tolist())


def _numbers(what: str, values: ArrayLike) -> NDArray[np.float64]:
    try:
        numbers = np.asarray(values, np.float64)
    except (TypeError, ValueError) as error:
        raise ValueError(f"{what}: expected numbers, found {values!r}") from error
    if not np.isfinite(numbers).all():
        raise ValueError(f"{what}: expected finite numbers, found {np.count_nonzero(~np.isfinite(numbers))} "
                         "others")
    return numbers


def _points(what: str, points: ArrayLike) -> NDArray[np.float64]:
    array = _numbers(what, points)
    if array.ndim != 2 or array.shape[1] != 2 or len(array) < 2:
        raise ValueError(f"{what}: expected at least two points, shape (n, 2), found {_shape(array)}")
    return array


def _size(size: Sequence[int]) -> tuple[int, int]:
    try:
        width, height = map(int, size)
    except (TypeError, ValueError) as error:
        raise ValueError(f"size: expected (width, height), found {size!r}") from error
    if not 0 < min(width, height) <= max(width, height) <= _LARGEST_SIDE:
        raise ValueError(f"size: expected sides from 1 to {_LARGEST_SIDE}, found {width} x {height}")
    return width, height


def _warp(image: NDArray[np.uint8], matrix: NDArray[np.float64], size: tuple[int, int]) -> NDArray[np.uint8]:
    """What lies at p in the image is then at `matrix` · (p, 1) in a picture of `size`.

    Interpolation is linear. An image that shrinks is averaged first, so that no detail turns into a pattern.
    """
    cv2 = _opencv()
    height, width, channels = image.shape
    matrix = matrix.copy()
    along_x, along_y = np.hypot(*matrix[:, :2])
    small = (max(1, round(width * min(1, along_x))), max(1, round(height * min(1, along_y))))
    if small != (width, height):
        image = cv2.resize(image, small, interpolation=cv2.INTER_AREA)
        matrix[:, :2] *= width / small[0], height / small[1]
    matrix[:, 2] += matrix[:, :2] @ (0.5, 0.5) - 0.5  # OpenCV's coordinates are 0 in the first pixel's centre
    warped = cv2.warpAffine(image, matrix, size, flags=cv2.INTER_LINEAR, borderMode=cv2.BORDER_REPLICATE)
    return np.ascontiguousarray(warped.reshape(size[1], size[0], channels), np.uint8)


def grey(image: ArrayLike) -> NDArray[np.uint8]:
    """The brightness of a photograph, for networks that take one channel.

    Args:
        image: uint8 (height, width, 3), red, green and blue; or without colours, and then returned as it is.

    Returns:
        uint8 (height, width, 1): 0.299 · red + 0.587 · green + 0.114 · blue (ITU-R BT.601), as the tool has it.

    Raises:
        ValueError: The image is something else.
    """
    picture = _picture(image)
    if picture.shape[2] == 1:
        return picture
    luma = picture @ np.array([[77], [150], [29]], np.uint32) >> 8  # in 256ths
    return luma.astype(np.uint8)


def square(box: Sequence[float], margin: float = 0.0) -> Box:
    """The square around a box with the same centre.

    Args:
        box: Left, top, width and height, in pixels.
        margin: Is added on each side, as a part of the longer side; may be negative, above -0.5.

    Raises:
        ValueError: Something else was given.
    """
    left, top, width, height = _box(box)
    if not -0.5 < margin < np.inf:
        raise ValueError(f"margin: expected a number above -0.5, found {margin}")
    side = max(width, height) * (1 + 2 * margin)
    return Box(left + (width - side) / 2, top + (height - side) / 2, side, side)


def crop(image: ArrayLike, box: Sequence[float], size: Sequence[int]) -> NDArray[np.uint8]:
    """Cuts a box out and brings it to a network's size.

    Where the box reaches outside of the image, the pixels at its edge repeat. A box of another aspect ratio than
    `size` is distorted; `square` gives one that a square network takes undistorted.

    Args:
        image: uint8 (height, width), (height, width, 1) or (height, width, 3).
        box: Left, top, width and height, in pixels.
        size: Width and height of the result, in pixels.

    Returns:
        uint8 (height, width, channels), in C order: one image of a network's batch, its colours in the order of
        `image`.

    Raises:
        ValueError: An argument is something else.
        ImportError: OpenCV is not installed.
    """
    left, top, width, height = _box(box)
    columns, rows = _size(size)
    across, down = columns / width, rows / height
    return _warp(_picture(image), np.array([[across, 0, -left * across], [0, down, -top * down]]), (columns, rows))


def landmarks(values: ArrayLike, box: Sequence[float], *, layout: str = "xyxy", scale: float = 1.0,
              size: Sequence[int] = (224, 224)) -> NDArray[np.float64]:
    """Places in the photograph of what `FANet` finds in a crop of it.

    The training of the weights decides how the values are to be read, as for the tool's `--layout` and `--scale`.

    Args:
        values: Float (136,), one image's values.
        box: Of the photograph, from which `crop` cut what the network got.
        layout: "xyxy" for x0 y0 x1 y1 ..., "xxyy" for all x, then all y.
        scale: Pixels of the network's input for a value of 1.
        size: Width and height of the network's input.

    Returns:
        float64 (68, 2): x and y, in pixels of the photograph, in the network's order.

    Raises:
        ValueError: An argument is something else.
    """
    array = _numbers("values", values)
    if array.shape != (136,):
        raise ValueError(f"values: expected the 136 values of one image, shape (136,), found {_shape(array)}")
    if layout not in ("xyxy", "xxyy"):
        raise ValueError(f'layout: expected "xyxy" or "xxyy", found {layout!r}')
    left, top, width, height = _box(box)
    points = array.reshape(68, 2) if layout == "xyxy" else array.reshape(2, 68).T
    return points * scale * (width, height) / _size(size) + (left, top)


def five_points(points: ArrayLike) -> NDArray[np.float64]:
    """Left eye, right eye, tip of the nose, left and right corner of the mouth, from 68 landmarks.

    The landmarks are numbered as in the 300-W challenge (C. Sagonas et al., "300 Faces in-the-Wild Challenge:
    The First Facial Landmark Localization Challenge", ICCV Workshops 2013, figure 1), but from 0: the eyes'
    outlines are 36 to 41 and 42 to 47, whose means are taken as the eyes, the tip of the nose is 30, and the
    corners of the mouth are 48 and 54. Weights that were trained in another order need another choice.

    Args:
        points: (68, 2), x and y.

    Returns:
        float64 (5, 2).

    Raises:
        ValueError: The points are something else.
    """
    array = _points("points", points)
    if len(array) != 68:
        raise ValueError(f"points: expected 68 landmarks, shape (68, 2), found {_shape(array)}")
    return np.stack([array[36:42].mean(0), array[42:48].mean(0), array[30], array[48], array[54]])


def similarity(source: ArrayLike, target: ArrayLike) -> NDArray[np.float64]:
    """The scale, rotation and translation that bring points closest to others.

    The sum of the squared distances |c R s + t - d|² over all points s of `source` and d of `target` is smallest
    (S. Umeyama, "Least-Squares Estimation of Transformation Parameters Between Two Point Patterns", IEEE TPAMI
    13(4), 1991). In the plane, c R is the product with one complex number, and the problem a linear one: with both
    sets centred, c R = Σ conj(s) d / Σ |s|². The result never mirrors.

    Args:
        source, target: (n, 2) with n from 2 up: x and y.

    Returns:
        float64 (2, 3): the matrix [c R, t].

    Raises:
        ValueError: The points are something else, all at one place, or best mapped to one place.
    """
    start, end = _points("source", source), _points("target", target)
    if start.shape != end.shape:
        raise ValueError(f"target: expected as many points as in source, {len(start)}, found {len(end)}")
    s, d = ((p - p.mean(0)) @ (1, 1j) for p in (start, end))
    extent = np.linalg.norm(s)
    if extent <= 1e-9 * np.abs(start).max():
        raise ValueError("source: expected points at different places, found one")
    turn = np.vdot(s, d) / extent**2
    if abs(turn) * extent <= 1e-9 * np.linalg.norm(d) or not d.any():
        raise ValueError("target: expected points that turning and scaling brings source closer to, found none")
    rotation = np.array([[turn.real, -turn.imag], [turn.imag, turn.real]])
    return np.column_stack([rotation, end.mean(0) - rotation @ start.mean(0)])


def align(image: ArrayLike, points: ArrayLike, size: Sequence[int],
          template: ArrayLike | None = None) -> NDArray[np.uint8]:
    """Turns, scales and shifts a face so that its landmarks come as close as they can to fixed places.

    The transform is `similarity`. What lies outside of the image repeats the pixels at its edge.

    Args:
        image: uint8 (height, width), (height, width, 1) or (height, width, 3).
        points: (n, 2), x and y in pixels of the image, in the template's order. Without a template, 68
            landmarks, of which `five_points` are taken, or these five.
        size: Width and height of the result, in pixels.
        template: (n, 2), where the points go, as parts of the result's width and height; `TEMPLATE` by default.
            Descriptors compare only between faces with the places on which the network was trained.

    Returns:
        uint8 (height, width, channels), in C order, as from `crop`.

    Raises:
        ValueError: An argument is something else.
        ImportError: OpenCV is not installed.
    """
    picture, columns_rows = _picture(image), _size(size)
    array = _points("points", points)
    if template is None:
        template = TEMPLATE
        if len(array) != len(TEMPLATE):
            array = five_points(array)
    places = _points("template", template) * columns_rows
    return _warp(picture, similarity(array, places), columns_rows)


def detect(image: ArrayLike, *, smallest: int = 24, neighbours: int = 5,
           cascade: str = "haarcascade_frontalface_default.xml") -> list[Box]:
    """Finds upright faces that look at the camera, by a cascade of Haar-like features that OpenCV ships.

    The method is that of P. Viola and M. Jones, "Robust Real-Time Face Detection", IJCV 57(2), 2004. It is fast,
    and misses faces that turn away or are partly covered.

    Args:
        image: uint8 (height, width), (height, width, 1) or (height, width, 3) of red, green and blue.
        smallest: Side of the smallest face that is looked for, in pixels.
        neighbours: How many overlapping finds confirm a face; more give fewer false ones, and miss more.
        cascade: A file's name in the folder `cv2.data.haarcascades`, or a path.

    Returns:
        One square box a face, the largest first; none if no face is found.

    Raises:
        ValueError: An argument is something else, or there is no such cascade.
        ImportError: OpenCV is not installed, or a version without cascades, such as 5.0.
    """
    cv2 = _opencv()
    if not hasattr(cv2, "CascadeClassifier"):
        raise ImportError("facezoo.faces.detect needs OpenCV 4, whose wheel has cascades, found "
                          f'{cv2.__version__}: pip install "facezoo[faces]"')
    brightness = grey(image)
    if smallest < 1 or neighbours < 0:
        raise ValueError(f"smallest, neighbours: expected at least 1 and 0, found {smallest} and {neighbours}")
    folder = Path(cv2.data.haarcascades)
    classifier = cv2.CascadeClassifier()  # one for each call, as two threads may not share one
    if not (folder / cascade).is_file() or not classifier.load(str(folder / cascade)):
        raise ValueError(f"cascade: expected a cascade's file in {folder} or a path, found {cascade!r}")
    found = classifier.detectMultiScale(brightness, minNeighbors=neighbours, minSize=(smallest, smallest))
    boxes = [Box(*map(float, box)) for box in found]
    return sorted(boxes, key=lambda box: (-box.width * box.height, box.left, box.top))
