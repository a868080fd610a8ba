"""Photographs, boxes, landmarks and the pictures that are made of them."""
import numpy as np
import pytest

pytest.importorskip("cv2")
from facezoo import faces  # noqa: E402

RANDOM = np.random.default_rng(5)
IMAGE = RANDOM.integers(0, 256, (40, 60, 3), np.uint8)
FACE = np.array(faces.TEMPLATE)
LANDMARKS = RANDOM.uniform(0, 100, (68, 2))


def astronaut():
    return pytest.importorskip("skimage.data").astronaut()  # the wheel has it


@pytest.mark.parametrize("box, size, expected", [
    ((7, 5, 20, 30), (20, 30), IMAGE[5:35, 7:27]),
    ((0, 0, 60, 40), (30, 20), IMAGE.reshape(20, 2, 30, 2, 3).mean((1, 3))),
    ((-3, -2, 10, 8), (10, 8), np.pad(IMAGE, ((2, 0), (3, 0), (0, 0)), "edge")[:8, :10]),
    ((55, 30, 10, 20), (10, 20), np.pad(IMAGE, ((0, 10), (0, 5), (0, 0)), "edge")[30:, 55:]),
    ((7.5, 5, 20, 30), (20, 30), (IMAGE[5:35, 7:27].astype(float) + IMAGE[5:35, 8:28]) / 2),
], ids=["same size", "half size", "top left outside", "bottom right outside", "half a pixel"])
def test_crop_has_the_pixels_of_the_box(box, size, expected):
    for image, pixels in (IMAGE, expected), (IMAGE[..., 0], expected[..., :1]), (IMAGE[..., :1], expected[..., :1]):
        result = faces.crop(image, box, size)
        assert result.dtype == np.uint8 and result.flags.c_contiguous and result.shape == pixels.shape
        assert np.abs(result - pixels.astype(float)).max() <= 1


def test_shrinking_leaves_no_pattern():
    stripes = np.tile(np.array([0, 255], np.uint8), (256, 128))
    assert np.ptp(faces.crop(stripes, (0, 0, 256, 256), (37, 37))) < 50
    assert np.ptp(faces.align(stripes, FACE * 256, (37, 37))) < 50


def test_square_keeps_the_centre():
    assert faces.square((10, 20, 30, 50)) == (0, 20, 50, 50)
    assert faces.square((10, 20, 30, 50), margin=0.5) == (-25, -5, 100, 100)


@pytest.mark.parametrize("scale, degrees, shift", [(1, 0, (0, 0)), (2.5, 30, (40, -7)), (0.1, 170, (-300, 5))])
def test_similarity_recovers_a_known_transform(scale, degrees, shift):
    turn = scale * np.exp(1j * np.radians(degrees))
    known = np.array([[turn.real, -turn.imag, shift[0]], [turn.imag, turn.real, shift[1]]])
    moved = np.c_[LANDMARKS, np.ones(68)] @ known.T
    np.testing.assert_allclose(faces.similarity(LANDMARKS, moved), known, atol=1e-9)


def test_similarity_is_the_least_squares_solution_and_never_mirrors():
    for target in LANDMARKS[::-1], LANDMARKS * (-1, 1), LANDMARKS + RANDOM.normal(0, 9, (68, 2)):
        s, d = LANDMARKS - LANDMARKS.mean(0), target - target.mean(0)
        u, values, v = np.linalg.svd(d.T @ s)  # Umeyama's solution for any number of dimensions
        signs = np.diag([1, np.sign(np.linalg.det(u @ v))])
        expected = u @ signs @ v * (np.diag(values) @ signs).trace() / (s**2).sum()
        found = faces.similarity(LANDMARKS, target)
        np.testing.assert_allclose(found[:, :2], expected, atol=1e-9)
        assert np.linalg.det(found[:, :2]) > 0


def test_align_brings_landmarks_to_the_template():
    points = (FACE * 100) @ [[0.8, 0.6], [-0.6, 0.8]] + (120, 60)  # turned by 37 degrees
    rows, columns = np.mgrid[:256, :256] + 0.5
    spots = sum(np.exp(-((columns - x)**2 + (rows - y)**2) / 9) for x, y in points)
    photograph = (255 * spots).astype(np.uint8)
    aligned = faces.align(photograph, points, (200, 160))
    expected = faces.similarity(points, FACE * (200, 160))
    landed = np.c_[points, np.ones(5)] @ expected.T
    rows, columns = np.mgrid[:160, :200] + 0.5
    for x, y in landed:
        light = aligned[..., 0] * (np.hypot(columns - x, rows - y) < 12)
        assert np.hypot((light * columns).sum() / light.sum() - x, (light * rows).sum() / light.sum() - y) < 0.2
    all_landmarks = np.full((68, 2), 1e3)
    for place, point in zip([slice(36, 42), slice(42, 48), 30, 48, 54], points):
        all_landmarks[place] = point
    assert np.array_equal(aligned, faces.align(photograph, all_landmarks, (200, 160)))
    assert np.array_equal(IMAGE, faces.align(IMAGE, FACE * (60, 40), (60, 40), FACE))


def test_landmarks_are_read_in_either_layout():
    points = LANDMARKS / 100
    expected = points * (50, 25) + (10, 20)
    box = (10, 20, 50, 25)
    np.testing.assert_allclose(faces.landmarks(points.ravel(), box, scale=224), expected)
    np.testing.assert_allclose(faces.landmarks(points.T.ravel(), box, layout="xxyy", scale=224), expected)


def test_grey_is_luma():
    red, green, blue = np.moveaxis(IMAGE.astype(float), 2, 0)
    result = faces.grey(IMAGE)
    assert result.shape == (40, 60, 1)
    assert np.abs(result[..., 0] - (0.299 * red + 0.587 * green + 0.114 * blue)).max() < 1.5


def test_detect_finds_the_astronaut():
    for image in astronaut(), faces.grey(astronaut()):
        left, top, width, height = faces.detect(image)[0]
        expected = 174, 68, 100, 100  # by eye: from the hairline to below the mouth, from ear to ear
        across = min(left + width, expected[0] + expected[2]) - max(left, expected[0])
        down = min(top + height, expected[1] + expected[3]) - max(top, expected[1])
        both = across * down
        assert both / (width * height + expected[2] * expected[3] - both) > 0.7
    assert faces.detect(IMAGE) == []
    two = np.vstack([astronaut()[:256], faces.crop(astronaut(), (0, 0, 512, 256), (512, 256))[:, ::-1]])
    enlarged = np.hstack([two, faces.crop(astronaut(), (90, 0, 256, 256), (512, 512))])
    areas = [box.width * box.height for box in faces.detect(enlarged)]
    assert len(areas) >= 3 and areas == sorted(areas, reverse=True)


@pytest.mark.parametrize("call, sentence", [
    (lambda: faces.crop(IMAGE / 255, (0, 0, 5, 5), (5, 5)), r"image: expected uint8 .*found float64 \(40, 60, 3\)"),
    (lambda: faces.crop(IMAGE[..., :2], (0, 0, 5, 5), (5, 5)), r"image: .*found uint8 \(40, 60, 2\)"),
    (lambda: faces.crop(IMAGE[:0], (0, 0, 5, 5), (5, 5)), r"image: .*found uint8 \(0, 60, 3\)"),
    (lambda: faces.crop(IMAGE, (0, 0, 5), (5, 5)), r"box: expected left, top, width.*found \(0, 0, 5\)"),
    (lambda: faces.crop(IMAGE, (0, 0, 0, 5), (5, 5)), r"box: .* above 0, found \(0, 0, 0, 5\)"),
    (lambda: faces.crop(IMAGE, (0, 0, np.nan, 5), (5, 5)), "box: expected finite numbers, found 1 other"),
    (lambda: faces.crop(IMAGE, "face", (5, 5)), "box: expected numbers, found 'face'"),
    (lambda: faces.crop(IMAGE, (0, 0, 5, 5), (5, 0)), "size: expected sides from 1 .*found 5 x 0"),
    (lambda: faces.crop(IMAGE, (0, 0, 5, 5), 5), r"size: expected \(width, height\), found 5"),
    (lambda: faces.square((0, 0, 5, 5), margin=-0.5), "margin: expected a number above -0.5, found -0.5"),
    (lambda: faces.align(IMAGE, LANDMARKS[:7], (9, 9)), r"points: expected 68 landmarks.*found float64 \(7, 2\)"),
    (lambda: faces.align(IMAGE, LANDMARKS[:7], (9, 9), FACE), "expected as many .* source, 7, found 5"),
    (lambda: faces.align(IMAGE, LANDMARKS.T, (9, 9)), r"points: .*shape \(n, 2\), found float64 \(2, 68\)"),
    (lambda: faces.align(IMAGE, np.full((5, 2), 7), (9, 9)), "source: expected points at different places"),
    (lambda: faces.align(IMAGE, FACE, (9, 9), np.full((5, 2), .1)), "target: expected points that turning"),
    (lambda: faces.landmarks(LANDMARKS, (0, 0, 5, 5)), r"shape \(136,\), found float64 \(68, 2\)"),
    (lambda: faces.landmarks(np.ones(136), (0, 0, 5, 5), layout="yx"), "layout: expected .*found 'yx'"),
    (lambda: faces.detect(IMAGE, smallest=0), "smallest, .*found 0 and 5"),
    (lambda: faces.detect(IMAGE, cascade="none.xml"), "cascade: expected .*found 'none.xml'"),
])
def test_wrong_use_is_one_sentence(call, sentence):
    with pytest.raises(ValueError, match=sentence) as error:
        call()
    assert "\n" not in str(error.value)


def test_a_missing_opencv_names_the_extra(monkeypatch):
    import cv2
    monkeypatch.delattr(cv2, "CascadeClassifier")
    with pytest.raises(ImportError, match=r"needs OpenCV 4, .*found 4.*facezoo\[faces\]"):
        faces.detect(IMAGE)
    monkeypatch.setitem(__import__("sys").modules, "cv2", None)
    with pytest.raises(ImportError, match=r"needs OpenCV, found none: pip install \"facezoo\[faces\]\""):
        faces.crop(IMAGE, (0, 0, 5, 5), (5, 5))
