// Transitions from picture 0 (imgIndex 0, going) to picture 1 (imgIndex 1,
// coming) as progress runs from 0 to 1. Each picture is drawn on its own;
// the type only decides its alpha.
varying vec2 textureCoordinate;

uniform sampler2D fgImageTexture;
uniform float imgAlpha;
uniform float xyRatio;
uniform float progress;
uniform float xRotation;
uniform float yRotation;
uniform float premulAlpha;
uniform int transitionType;
uniform int imgIndex;
uniform int useEdgeAlpha;
uniform int moveDirection;

const int FADE_IN_FADE_OUT = 0;
const int RIGHT_IN_LEFT_OUT = 1;
const int APERTURE = 2;
const int WIPE = 3;
const int OPEN_DOOR = 4;
const int SHRED = 5;

vec4 withAlpha(vec3 color, float alpha)
{
    if (premulAlpha == 1.0)
        return vec4(color * alpha, alpha);
    return vec4(color, alpha);
}

// Softens the outermost 0.004 of the picture, so that a moved or turned
// picture has no jagged rim.
float getEdgeAlpha()
{
    if (useEdgeAlpha == 0)
        return 1.0;
    float x = textureCoordinate.x;
    float y = textureCoordinate.y;
    vec2 centre = vec2(0.5, 0.5);
    float len = distance(textureCoordinate, centre);
    float edgeAlpha = 1.0;
    float maxL;
    if (y > 0.996) {
        maxL = distance(vec2(x, 0.998), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    } else if (y < 0.004) {
        maxL = distance(vec2(x, 0.002), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    }
    if (x > 0.996) {
        maxL = distance(vec2(0.998, y), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    } else if (x < 0.004) {
        maxL = distance(vec2(0.002, y), centre);
        edgeAlpha = smoothstep(maxL + 0.002, maxL - 0.002, len);
    }
    return edgeAlpha;
}

// A circle from the centre: picture 1 shows inside it, picture 0 outside.
vec4 aperture(vec4 color)
{
    vec2 point = vec2(textureCoordinate.x, textureCoordinate.y * xyRatio);
    float dist = distance(point, vec2(0.5, 0.5 * xyRatio));
    float alpha = smoothstep(progress + 0.03, progress, dist);
    if (imgIndex == 0)
        alpha = progress > 0.5 ? 1.0 - alpha : 1.0;
    return withAlpha(color.rgb, alpha);
}

// A straight edge sweeping across; moveDirection 0 sweeps from the right.
vec4 wipe(vec4 color)
{
    float x = moveDirection == 0 ? 1.0 - textureCoordinate.x : textureCoordinate.x;
    float alpha = smoothstep(progress + 0.001, progress, x);
    if (imgIndex == 0)
        alpha = 1.0 - alpha;
    return withAlpha(color.rgb, alpha);
}

// Picture 0 splits at the middle and its two halves are pushed outward.
vec4 openDoor(vec4 color)
{
    if (imgIndex != 0)
        return withAlpha(color.rgb, color.a);
    float x = textureCoordinate.x;
    float y = textureCoordinate.y;
    float halfWidth = 0.5 * (1.0 - progress);
    float squeeze = 1.0 - progress + 0.001;
    if (x < halfWidth) {
        vec4 c = texture2D(fgImageTexture, vec2(x / squeeze, y));
        return withAlpha(c.rgb, c.a);
    }
    if (x > 1.0 - halfWidth) {
        vec4 c = texture2D(fgImageTexture, vec2((x - progress) / squeeze, y));
        return withAlpha(c.rgb, c.a);
    }
    return vec4(0.0);
}

void main()
{
    vec4 color = texture2D(fgImageTexture, textureCoordinate);
    float edgeAlpha = getEdgeAlpha();
    if (transitionType == RIGHT_IN_LEFT_OUT)
        gl_FragColor = withAlpha(color.rgb, min(edgeAlpha, color.a));
    else if (transitionType == APERTURE)
        gl_FragColor = aperture(color);
    else if (transitionType == WIPE)
        gl_FragColor = wipe(color);
    else if (transitionType == OPEN_DOOR)
        gl_FragColor = openDoor(color);
    else if (transitionType == SHRED)
        gl_FragColor = vec4(vec3(1.0, 0.0, 0.0) * imgAlpha, 1.0);  // a red placeholder
    else
        gl_FragColor = withAlpha(color.rgb, min(edgeAlpha, imgAlpha * color.a));
}
