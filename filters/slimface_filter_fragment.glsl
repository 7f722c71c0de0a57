// Slims the jaw: 22 contour points are each pulled a little towards a point in
// the middle of the face, and every fragment reads the picture at the
// coordinate so displaced. Points and face area are in pixels; the fragment
// works relative to the face area's origin.
varying vec2 textureCoordinate;

uniform int filterType;
uniform sampler2D inputImageTexture;
uniform sampler2D stickerTexture;
uniform float keyPoints[196];
uniform float textureWidth;
uniform float textureHeight;
uniform float slimStrength;
uniform vec4 slim_face_area;
uniform bool isFaceArea;
uniform float premulAlpha;

vec2 keyPoint(int index)
{
    return vec2(keyPoints[index * 2], keyPoints[index * 2 + 1]);
}

// A pull with linear falloff out to the radius, given as its inverse.
vec2 curveWarp(vec2 textureCoord, vec2 originPosition, vec2 targetPosition, float inverseRadius)
{
    vec2 direction = targetPosition - originPosition;
    float infect = clamp(1.0 - distance(textureCoord, originPosition) * inverseRadius, 0.0, 1.0);
    return textureCoord - direction * infect;
}

vec2 liftStep(vec2 coordinate, int source, int target, float factor, float inverseRadius)
{
    vec2 origin = keyPoint(source);
    vec2 destination = origin + (keyPoint(target) - origin) * factor;
    return curveWarp(coordinate, origin, destination, inverseRadius);
}

vec2 faceLift(vec2 coordinate, float inverseRadius)
{
    float faceLiftScale = slimStrength * 0.012;
    // Down the two sides of the contour in pairs; point 16 stays.
    coordinate = liftStep(coordinate, 5, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 27, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 6, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 26, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 7, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 25, 53, faceLiftScale, inverseRadius);
    coordinate = liftStep(coordinate, 8, 53, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 24, 53, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 9, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 23, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 10, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 22, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 11, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 21, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 12, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 20, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 13, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 19, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 14, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 18, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 15, 90, faceLiftScale * 2.0, inverseRadius);
    coordinate = liftStep(coordinate, 17, 90, faceLiftScale * 2.0, inverseRadius);
    return coordinate;
}

void Image_Beauty_SlimFace()
{
    vec2 textureSize = vec2(textureWidth, textureHeight);
    vec2 coordinate = textureCoordinate * textureSize;
    coordinate = coordinate - slim_face_area.xy;
    // The eye distance is the radius of every warp.
    float eyeDistance = distance(keyPoint(96), keyPoint(97));
    coordinate = faceLift(coordinate, 1.0 / eyeDistance);
    coordinate = (coordinate + slim_face_area.xy) / textureSize;
    vec4 color = texture2D(inputImageTexture, coordinate);
    if (premulAlpha == 1.0)
        gl_FragColor = vec4(color.rgb * color.a, color.a);
    else
        gl_FragColor = color;
}

void main()
{
    Image_Beauty_SlimFace();
}
